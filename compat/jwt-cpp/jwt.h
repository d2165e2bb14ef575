#pragma once

// Stands in for jwt-cpp where that is not installed: the few facilities that the service calls, with jwt-cpp's names
// and meaning, on libjwt, which makes and signs the token.

// libjwt names its structure "jwt", which is the namespace's name here.
#define jwt libjwt_token
#include <jwt.h>
#undef jwt
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace jwt {

using date = std::chrono::system_clock::time_point;

namespace algorithm {

/// RS256: RSASSA-PKCS1-v1_5 with SHA-256 (RFC 7518 section 3.3), signing with the private key.
class rs256 {
 public:
  /// PEM texts. Throws std::runtime_error when the private key, or without one the public key, cannot be loaded.
  explicit rs256(const std::string& public_key, const std::string& private_key = "",
                 const std::string& public_key_password = "", const std::string& private_key_password = "") {
    if (private_key.empty()) {
      load(public_key, public_key_password, "failed to load public key", PEM_read_bio_PUBKEY);
    } else {
      const key_owner key =
          load(private_key, private_key_password, "failed to load private key", PEM_read_bio_PrivateKey);
      // A text that loads without a pass phrase is not encrypted. No ?: here: it would make a copy that stays.
      if (private_key_password.empty()) {
        signing_key = private_key;
      } else {
        signing_key = write_plain(key.get());
      }
    }
  }
  rs256(const rs256&) = default;
  rs256& operator=(const rs256&) = delete;
  ~rs256() { OPENSSL_cleanse(signing_key.data(), signing_key.size()); }

  /// The PEM text to sign with, not encrypted. Throws std::runtime_error when only a public key was given.
  const std::string& private_key_pem() const {
    if (signing_key.empty()) {
      throw std::runtime_error("failed to create signature: no private key given");
    }
    return signing_key;
  }

 private:
  using bio_owner = std::unique_ptr<BIO, decltype(&BIO_free)>;
  using key_owner = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  using key_reader = EVP_PKEY* (*)(BIO*, EVP_PKEY**, pem_password_cb*, void*);

  /// OpenSSL would ask on the terminal for the pass phrase of an encrypted key; here the given one decides.
  static int give_password(char* buffer, int size, int /*writing*/, void* password) {
    const std::string& text = *static_cast<const std::string*>(password);
    if (text.empty() || text.size() > static_cast<std::size_t>(size)) {
      return -1;
    }
    text.copy(buffer, text.size());
    return static_cast<int>(text.size());
  }

  static key_owner load(const std::string& pem, std::string password, const char* failure, key_reader read) {
    const bio_owner bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    key_owner key(bio ? read(bio.get(), nullptr, give_password, &password) : nullptr, EVP_PKEY_free);
    ERR_clear_error();
    if (!key) {
      throw std::runtime_error(failure);
    }
    if (EVP_PKEY_base_id(key.get()) != EVP_PKEY_RSA) {
      throw std::runtime_error(std::string(failure) + ": not an RSA key");
    }
    return key;
  }

  /// libjwt reads the key again and would ask for its pass phrase, so it gets a text that needs none.
  static std::string write_plain(EVP_PKEY* key) {
    const bio_owner bio(BIO_new(BIO_s_mem()), BIO_free);
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 0) {
      throw std::runtime_error("failed to write private key");
    }
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(length));
  }

  std::string signing_key;
};

}  // namespace algorithm

/// What texts of claims may have between them. libjwt puts the token on the stack, where a byte can take eight.
constexpr std::size_t MOST_CLAIM_BYTES = 16384;

/// A token being built. Each call sets a header member or a claim (RFC 7519) and returns the builder.
class builder {
 public:
  builder& set_type(const std::string& type) {
    token_type = type;
    return *this;
  }
  builder& set_issuer(const std::string& issuer) { return set_text("iss", issuer); }
  builder& set_subject(const std::string& subject) { return set_text("sub", subject); }
  builder& set_audience(const std::string& audience) { return set_text("aud", audience); }
  builder& set_id(const std::string& id) { return set_text("jti", id); }
  builder& set_expires_at(const date& time) { return set_date("exp", time); }
  builder& set_not_before(const date& time) { return set_date("nbf", time); }
  builder& set_issued_at(const date& time) { return set_date("iat", time); }

  /// The signed token in compact form. Throws std::runtime_error when libjwt cannot take a claim (which has to be
  /// UTF-8) or sign, and for claims of more than MOST_CLAIM_BYTES.
  std::string sign(const algorithm::rs256& algorithm) const {
    jwt_t* created = nullptr;
    require(jwt_new(&created), "failed to create token");
    const std::unique_ptr<jwt_t, decltype(&jwt_free)> token(created, jwt_free);
    require(jwt_add_header(token.get(), "typ", token_type.c_str()), "failed to set token type");
    std::size_t length = 0;
    for (const auto& claim : texts) {
      length += claim.second.size();
      require(jwt_add_grant(token.get(), claim.first, claim.second.c_str()), "failed to set a claim");
    }
    require(length > MOST_CLAIM_BYTES ? 1 : 0, "claims are too long");
    for (const auto& claim : dates) {
      // Not jwt_add_grant_int, which takes a long: 32 bits are too few for times after 2038.
      const std::string json = "{\"" + std::string(claim.first) + "\":" + std::to_string(claim.second) + "}";
      require(jwt_add_grants_json(token.get(), json.c_str()), "failed to set a date claim");
    }
    const std::string& key = algorithm.private_key_pem();
    require(jwt_set_alg(token.get(), JWT_ALG_RS256, reinterpret_cast<const unsigned char*>(key.c_str()),
                        static_cast<int>(key.size())),
            "failed to set the signing key");
    const std::unique_ptr<char, decltype(&std::free)> text(jwt_encode_str(token.get()), std::free);
    ERR_clear_error();
    if (!text) {
      throw std::runtime_error("failed to create signature");
    }
    return text.get();
  }

 private:
  static void require(int error, const char* failure) {
    if (error != 0) {
      throw std::runtime_error(failure);
    }
  }

  builder& set_text(const char* claim, const std::string& text) {
    texts[claim] = text;
    return *this;
  }

  builder& set_date(const char* claim, const date& time) {
    dates[claim] = std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
    return *this;
  }

  std::string token_type;
  std::map<const char*, std::string> texts;
  std::map<const char*, std::int64_t> dates;
};

inline builder create() {
  return {};
}

}  // namespace jwt
