#include "tool/token_commands.h"

#include <algorithm>
#include <charconv>
#include <iostream>

#include "softtoken/certificates.h"
#include "softtoken/token_directory.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/passwords.h"
#include "tool/text.h"

namespace tool {
namespace {

using softtoken::ByteView;
using softtoken::Failure;
using softtoken::Status;
using softtoken::TokenState;
using softtoken::TokenSummary;

struct Options {
  std::string name;
  std::string label;
  std::string pinFile;
  std::string soPinFile;
  std::string newPinFile;
  std::string firmware;
  std::string capacity;
  bool yes = false;
};

struct OptionField {
  const char* name;
  std::string Options::*text;  // null for --yes
};

constexpr OptionField optionFields[] = {
    {"label", &Options::label},
    {"pin-file", &Options::pinFile},
    {"so-pin-file", &Options::soPinFile},
    {"new-pin-file", &Options::newPinFile},
    {"firmware", &Options::firmware},
    {"capacity", &Options::capacity},
    {"yes", nullptr},
};

struct Command {
  const char* name;
  bool takesName;
  std::vector<std::string_view> options;
  const char* usage;
  void (*run)(const Options&);
};

constexpr const char* keyTypeNames[] = {"RSA 1024", "RSA 2048", "RSA 3072", "RSA 4096", "P-256", "P-384", "P-521"};

PasswordSource officerPassword(const Options& options) {
  return {"security officer password", options.soPinFile, "TAVRIN_SO_PIN"};
}

std::uint32_t capacityIn(const std::string& text) {
  std::uint32_t capacity = 0;
  const char* end = text.data() + text.size();
  if (const auto parsed = std::from_chars(text.data(), end, capacity); parsed.ec != std::errc{} || parsed.ptr != end)
    throw UsageError("--capacity takes a number, not " + text);
  return capacity;
}

TokenSummary summaryOf(const std::string& name) {
  softtoken::Token token(softtoken::folderOfToken(name));
  return {name, softtoken::isPlugged(name), token.state(), token.tries()};
}

void create(const Options& options) {
  softtoken::NewToken token;
  token.name = options.name;
  token.label = options.label.empty() ? options.name : options.label;
  if (!options.firmware.empty()) token.firmware = options.firmware;
  if (!options.capacity.empty()) token.capacity = capacityIn(options.capacity);
  softtoken::requireGood(token);
  const auto userPassword = readNewPassword({"user password", options.pinFile, "TAVRIN_PIN"});
  const auto soPassword = readNewPassword(officerPassword(options));
  softtoken::createToken(token, textIn(userPassword), textIn(soPassword));
  std::cout << "created " << options.name << ", serial " << summaryOf(options.name).state->serial << '\n';
}

void list(const Options&) {
  const std::vector<TokenSummary> tokens = softtoken::allTokens();
  if (tokens.empty()) {
    std::cout << "There are no tokens in " << softtoken::textOf(softtoken::tokenRoot()) << '\n';
    return;
  }
  std::vector<std::vector<std::string>> rows{{"NAME", "SERIAL", "LABEL", "PLUGGED", "TRIES LEFT", "OBJECTS"}};
  for (const TokenSummary& token : tokens) {
    rows.push_back({token.name, token.state->serial, token.state->label, token.plugged ? "yes" : "no",
                    token.tries.user == 0 ? "locked" : std::to_string(token.tries.user),
                    std::to_string(token.state->objectCount()) + " of " + std::to_string(token.state->capacity)});
  }
  printTable(rows);
}

std::string subjectOf(const TavrinCertificate& certificate) {
  try {
    return softtoken::parseCertificate(ByteView(certificate.certificate).first(certificate.certificateLength))
        .subjectText;
  } catch (const Failure&) {
    return "(unreadable)";
  }
}

void show(const Options& options) {
  const TokenSummary token = summaryOf(options.name);
  const TokenState& state = *token.state;
  printTable({{"name", token.name},
              {"folder", softtoken::textOf(softtoken::folderOfToken(token.name))},
              {"serial", state.serial},
              {"label", state.label},
              {"firmware", state.firmware},
              {"plugged", token.plugged ? "yes" : "no"},
              {"user tries left", std::to_string(token.tries.user)},
              {"security officer tries left", std::to_string(token.tries.securityOfficer)},
              {"objects", std::to_string(state.objectCount()) + " of " + std::to_string(state.capacity)}});
  std::vector<std::vector<std::string>> rows;
  for (const TavrinKeyPair& pair : state.keyPairs) {
    rows.push_back({"key pair " + std::to_string(pair.id), keyTypeNames[pair.keyType - 1], pair.label,
                    hexOf(ByteView(pair.keyId).first(pair.keyIdLength))});
  }
  for (const TavrinCertificate& certificate : state.certificates) {
    rows.push_back({"certificate " + std::to_string(certificate.id), subjectOf(certificate), certificate.label,
                    hexOf(ByteView(certificate.certId).first(certificate.certIdLength))});
  }
  if (!rows.empty()) printTable(rows);
}

void plug(const Options& options) {
  softtoken::plugToken(options.name);
  std::cout << "plugged in " << options.name << '\n';
}

void unplug(const Options& options) {
  softtoken::unplugToken(options.name);
  std::cout << "unplugged " << options.name << '\n';
}

void unlock(const Options& options) {
  softtoken::Token token(softtoken::folderOfToken(options.name));
  const auto soPassword = readPassword(officerPassword(options));
  const auto newPassword = readNewPassword({"user password", options.newPinFile, "TAVRIN_NEW_PIN"});
  int triesLeft = 0;
  try {
    token.setUserPassword(softtoken::Role::securityOfficer, textIn(soPassword), textIn(newPassword), triesLeft);
  } catch (const Failure& failure) {
    if (failure.status() != Status::wrongPassword) throw;
    throw Failure(failure.status(), "the security officer password is wrong; tries left: " + std::to_string(triesLeft));
  }
  std::cout << "unlocked " << options.name << " and set its new user password\n";
}

void remove(const Options& options) {
  const std::string folder = softtoken::textOf(softtoken::folderOfToken(options.name));
  if (!options.yes) {
    if (!inputIsTerminal())
      throw Failure(Status::badArgument, "there is nobody to ask whether to remove " + options.name + "; use --yes");
    std::cout << "Remove " << options.name << " with all its keys (" << folder << ")? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") throw Failure(Status::badArgument, "nothing was removed");
  }
  softtoken::removeToken(options.name);
  std::cout << "removed " << options.name << '\n';
}

const std::vector<Command>& commands() {
  static const std::vector<Command> table{
      {"create",
       true,
       {"label", "pin-file", "so-pin-file", "firmware", "capacity"},
       "create NAME [--label TEXT] [--pin-file FILE] [--so-pin-file FILE]\n"
       "                           [--firmware VERSION] [--capacity OBJECTS]",
       create},
      {"list", false, {}, "list", list},
      {"show", true, {}, "show NAME", show},
      {"plug", true, {}, "plug NAME", plug},
      {"unplug", true, {}, "unplug NAME", unplug},
      {"unlock",
       true,
       {"so-pin-file", "new-pin-file"},
       "unlock NAME [--so-pin-file FILE] [--new-pin-file FILE]",
       unlock},
      {"remove", true, {"yes"}, "remove NAME [--yes]", remove},
  };
  return table;
}

Options parseOptions(const Command& command, const std::vector<std::string>& words) {
  std::vector<OptionRow> accepted;
  for (const OptionField& field : optionFields) {
    if (std::ranges::find(command.options, field.name) != command.options.end())
      accepted.push_back({field.name, field.text != nullptr});
  }
  const Arguments arguments = parseArguments("token " + std::string(command.name), words, accepted);
  if (arguments.words.size() != (command.takesName ? 1 : 0))
    throw UsageError(command.takesName ? "give one token's name" : "this command takes no name");
  Options options;
  if (command.takesName) options.name = arguments.words[0];
  options.yes = arguments.has("yes");
  for (const OptionField& field : optionFields)
    if (field.text) options.*field.text = arguments.value(field.name);
  return options;
}

}  // namespace

std::string tokenUsage() {
  std::string text;
  for (const Command& command : commands()) text += "  tavrin-tool token " + std::string(command.usage) + "\n";
  return text;
}

int runTokenCommand(const std::vector<std::string>& words) {
  if (words.empty()) throw UsageError("say what to do with tokens");
  const auto command = std::ranges::find(commands(), words[0], &Command::name);
  if (command == commands().end()) throw UsageError("there is no command token " + words[0]);
  command->run(parseOptions(*command, {words.begin() + 1, words.end()}));
  return 0;
}

}  // namespace tool
