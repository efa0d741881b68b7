#include "objects/ca_installation.h"

#include <algorithm>

namespace tavrin {
namespace {

std::string baseFolder(const std::string& programFolder) {
  std::string home = platform::environmentVariable("TAVRIN_HOME");
  if (!home.empty()) return home;
  for (const char* folder : installFolders) {
    if (platform::isFolder(folder)) return folder;
  }
  return programFolder;
}

}  // namespace

std::string caFolder(const std::string& programFolder) {
  const char separator = platform::pathSeparator;
  return baseFolder(programFolder) + separator + "TavrinDSC" + separator + "Certificates";
}

std::string extractCommonName(std::string_view name) {
  static constexpr std::string_view tag = "CN=";
  for (auto start = name.find(tag); start != std::string_view::npos; start = name.find(tag, start + 1)) {
    const std::string_view rest = name.substr(start + tag.size());
    const std::string_view commonName = rest.substr(0, rest.find_first_of(",\n\r"));
    if (!commonName.empty()) return std::string(commonName);
  }
  return std::string(name);
}

IssuerChain followIssuers(const std::map<std::string, std::string>& issuerOf, std::string issuer) {
  IssuerChain chain;
  while (!issuer.empty()) {
    const auto found = issuerOf.find(issuer);
    if (found == issuerOf.end() ||
        std::find(chain.issuers.begin(), chain.issuers.end(), issuer) != chain.issuers.end()) {
      chain.missing = issuer;
      return chain;
    }
    chain.issuers.push_back(issuer);
    if (found->second == issuer) return chain;
    issuer = found->second;
  }
  return chain;
}

}  // namespace tavrin
