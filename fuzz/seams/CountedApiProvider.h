#pragma once

#include <string>
#include <vector>

namespace fuzz {

/// Stands in the place of the API providers, which open no port here: those made since the last call, each as "PORT
/// MILLISECONDS". Waits until each has been asked, on its own thread, to serve.
std::vector<std::string> takeApiProviders();

}  // namespace fuzz
