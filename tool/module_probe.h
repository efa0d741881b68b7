// What an application sees of the module and its tokens without a password.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "softtoken/token_state.h"

namespace tool {

struct PublicKey {
  std::string type;  // RSA 2048, P-256
  std::string label;
  softtoken::Bytes id;
  softtoken::Bytes value;  // RSA modulus or EC point, without DER around it
};

struct StoredCertificate {
  std::string label;
  softtoken::Bytes id;
  softtoken::Bytes der;
};

enum class TriesLeft { many, few, none };

struct ProbedToken {
  std::string label;
  std::string serial;
  std::string firmware;
  std::string model;
  TriesLeft tries = TriesLeft::many;
  std::optional<unsigned> exactTries;  // known for software tokens alone
  std::vector<PublicKey> keys;
  std::vector<StoredCertificate> certificates;
  std::string name;     // of a software token, for tavrin-tool token; empty for other tokens
  std::string problem;  // why it cannot be used; empty when it can

  bool isSoftToken() const { return model == softtoken::softTokenModel; }
};

// A software token that no application sees, or that takes no more objects.
struct SetAsideToken {
  std::string name;
  std::string state;    // "unplugged", "unreadable" or "full"
  std::string problem;  // of an unreadable one
};

struct LoadedFile {
  std::string path;     // as the system's loader reports it; empty: not loaded
  std::string version;  // of the file's resources; empty: none
};

struct ProbedModule {
  LoadedFile module;
  LoadedFile deviceLibrary;
  std::string libraryVersion;  // as the module itself reports
  std::string cryptokiVersion;
  std::vector<ProbedToken> tokens;
  std::string softTokenFolder;  // where the software tokens are; empty when another device library is loaded
  std::vector<SetAsideToken> setAside;
  std::string problem;
  std::string warning;  // about how the library was loaded
};

// The module beside this program, or where the installation has put it.
std::filesystem::path defaultModule();

// Loads and initialises the module, reads every token in a session without login, and unloads the module. A failure is
// stored in `problem`.
ProbedModule probeModule(const std::filesystem::path& file);

}  // namespace tool
