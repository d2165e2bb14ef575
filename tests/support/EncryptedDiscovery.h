#pragma once

#include <string>
#include <vector>

namespace test {

/// The bytes as base64 text with its "=" fill, without line breaks.
std::string base64Encode(const std::string& bytes);

/// Each plaintext as one RSA-OAEP block for the certificate's key; the blocks joined. Throws for one that is too long.
std::string encryptBlocks(const std::vector<std::string>& plaintexts, const std::string& certificate);

/// The payload cut into as few blocks as it takes, encrypted, as base64 text: the "data" of a discovery reply.
std::string encryptDiscovery(const std::string& payload, const std::string& certificate);

/// A whole discovery reply: {"data":"..."}.
std::string discoveryReply(const std::string& payload, const std::string& certificate);

/// A payload with this OpenID configuration URL at config.endpoints.veloIdConfiguration.
std::string discoveryPayload(const std::string& openIdConfigurationUrl);

}  // namespace test
