#include "tool/token_commands.h"

#include <iostream>

#include "devlib/device_constants.h"
#include "softtoken/token_folders.h"
#include "tool/command_line.h"
#include "tool/console.h"
#include "tool/passwords.h"
#include "tool/text.h"
#include "tool/token_listing.h"

namespace tool {
namespace {

using softtoken::Failure;
using softtoken::Status;

constexpr const char* passwordFooter =
    "Passwords have 4 to 63 bytes. They are read from the first line of the given file,\n"
    "else from the environment variables TAVRIN_PIN (user), TAVRIN_SO_PIN (security officer)\n"
    "and TAVRIN_NEW_PIN (unlock), else from the terminal; never from the command line, where\n"
    "other users could see them.\n";

struct TokenOptions {
  softtoken::NewToken token;
  std::string pinFile;
  std::string soPinFile;
  std::string newPinFile;
  bool ifAbsent = false;
  bool yes = false;
  bool json = false;
};

PasswordSource officerPassword(const TokenOptions& options) {
  return {"security officer password", options.soPinFile, "TAVRIN_SO_PIN"};
}

PasswordSource userPassword(const TokenOptions& options) { return {"user password", options.pinFile, "TAVRIN_PIN"}; }

void warnOfLabel(const softtoken::NewToken& token) {
  const std::size_t shown = tavrin::shownLabelLength(token.label.size());
  if (shown < token.label.size())
    std::cerr << "tavrin-tool: warning: applications see only the first " << shown << " bytes of the label\n";
  for (const softtoken::TokenSummary& other : softtoken::allTokens()) {
    if (!other.state || other.name == token.name || other.state->label != token.label) continue;
    std::cerr << "tavrin-tool: warning: token " << printable(other.name)
              << " has the same label; applications that choose by label cannot distinguish them\n";
  }
}

void checkNewToken(const softtoken::NewToken& token) {
  softtoken::requireValid(token);
  if (printable(token.label) != token.label)
    throw Failure(Status::badArgument, "a label is UTF-8 text without control characters");
}

struct NewPasswords {
  softtoken::SecretBytes user;
  softtoken::SecretBytes officer;
};

NewPasswords readNewPasswords(const TokenOptions& options) {
  return {readNewPassword(userPassword(options)), readNewPassword(officerPassword(options))};
}

int create(TokenOptions& options) {
  softtoken::NewToken& token = options.token;
  if (token.label.empty()) token.label = token.name;
  checkNewToken(token);
  const auto isThere = [&] { return softtoken::tokenExists(token.name); };
  const bool wasThere = isThere();
  // Before passwords are asked for.
  if (wasThere && !options.ifAbsent)
    throw Failure(Status::badArgument, "there is a token named " + token.name + " already");
  if (!wasThere) {
    warnOfLabel(token);
    const NewPasswords passwords = readNewPasswords(options);
    try {
      softtoken::createToken(token, textIn(passwords.user), textIn(passwords.officer));
      std::cout << "created " << token.name << ", serial " << serialOf(token.name) << '\n';
      return 0;
    } catch (const Failure&) {
      // Another process may have made the token meanwhile.
      if (!options.ifAbsent || !isThere()) throw;
    }
  }
  std::cout << token.name << " exists, serial " << serialOf(token.name) << '\n';
  return 0;
}

// Asks before an action that destroys keys.
void confirm(const TokenOptions& options, const std::string& action) {
  const std::string& name = options.token.name;
  const std::string folder = softtoken::textOf(softtoken::folderOfToken(name));
  if (options.yes) return;
  if (!inputIsTerminal())
    throw Failure(Status::badArgument, "cannot ask whether to " + action + " " + name + "; use --yes");
  std::cout << "Destroy all keys of " << name << " (" << printable(folder) << ")? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes") throw Failure(Status::badArgument, "nothing was changed");
}

int reset(const TokenOptions& options) {
  const std::string& name = options.token.name;
  serialOf(name);  // throws for a token that cannot be read
  confirm(options, "reset");
  const NewPasswords passwords = readNewPasswords(options);
  softtoken::resetToken(name, textIn(passwords.user), textIn(passwords.officer));
  std::cout << "reset " << name << ", serial " << serialOf(name) << '\n';
  return 0;
}

int unlock(const TokenOptions& options) {
  const std::string& name = options.token.name;
  softtoken::Token token(softtoken::folderOfToken(name));
  const auto soPassword = readPassword(officerPassword(options));
  const auto newPassword = readNewPassword({"user password", options.newPinFile, "TAVRIN_NEW_PIN"});
  int triesLeft = 0;
  try {
    token.setUserPassword(softtoken::Role::securityOfficer, textIn(soPassword), textIn(newPassword), triesLeft);
  } catch (const Failure& failure) {
    if (failure.status() != Status::wrongPassword) throw;
    throw Failure(failure.status(), "the security officer password is wrong; tries left: " + std::to_string(triesLeft));
  }
  std::cout << "unlocked " << name << " and set its new user password\n";
  return 0;
}

int plug(const TokenOptions& options) {
  softtoken::plugToken(options.token.name);
  std::cout << "plugged in " << options.token.name << '\n';
  return 0;
}

int unplug(const TokenOptions& options) {
  softtoken::unplugToken(options.token.name);
  std::cout << "unplugged " << options.token.name << '\n';
  return 0;
}

int remove(const TokenOptions& options) {
  confirm(options, "remove");
  softtoken::removeToken(options.token.name);
  std::cout << "removed " << options.token.name << '\n';
  return 0;
}

class TokenCommands {
 public:
  explicit TokenCommands(const Command& program) : group_(program.add("token", "Manages software tokens.")) {
    addMaking();
    addLooking();
    addHandling();
    group_.footer("Tokens are folders below $TAVRIN_SOFT_TOKENS, by default below the user's\napplication data.\n");
  }

 private:
  Command add(const char* name, const char* description, bool takesName, int (*run)(TokenOptions&)) {
    const Command command = group_.add(name, description);
    if (takesName) command.requiredArgument("NAME", options_->token.name, "The token's name");
    command.run([options = options_, run] { return run(*options); });
    return command;
  }
  void addFile(const Command& command, const char* name, std::string& value, const char* description) {
    command.footer(passwordFooter);
    command.option(name, value, description);
  }
  void addYes(const Command& command) { command.flag("--yes", options_->yes, "Do not ask for confirmation"); }

  void addMaking() {
    const Command made = add("create", "Creates a token and plugs it in.", true, create);
    made.option("--label TEXT", options_->token.label, "The label to show; default: the name");
    addFile(made, "--pin-file FILE", options_->pinFile, "File with the user password");
    addFile(made, "--so-pin-file FILE", options_->soPinFile, "File with the security officer password");
    made.option("--firmware VERSION", options_->token.firmware, "The firmware version to report");
    made.option("--capacity NUMBER", options_->token.capacity, "Most key pairs and certificates to hold");
    made.flag("--if-absent", options_->ifAbsent, "Succeed when the token exists already");
    const Command again = add("reset", "Makes a token anew: empty, new passwords and serial.", true,
                              [](TokenOptions& options) { return reset(options); });
    addFile(again, "--pin-file FILE", options_->pinFile, "File with the new user password");
    addFile(again, "--so-pin-file FILE", options_->soPinFile, "File with the new security officer password");
    addYes(again);
  }

  void addLooking() {
    const auto list = [](TokenOptions& options) { return printTokens(options.json), 0; };
    const auto show = [](TokenOptions& options) { return printToken(options.token.name, options.json), 0; };
    add("list", "Lists all software tokens.", false, list).flag("--json", options_->json, "Print JSON");
    add("show", "Shows a token and its objects.", true, show).flag("--json", options_->json, "Print JSON");
  }

  void addHandling() {
    add("plug", "Plugs a token in.", true, [](TokenOptions& options) { return plug(options); });
    add("unplug", "Unplugs a token; it keeps its objects.", true,
        [](TokenOptions& options) { return unplug(options); });
    const Command unlocked = add("unlock", "Sets a new user password by the security officer's.", true,
                                 [](TokenOptions& options) { return unlock(options); });
    addFile(unlocked, "--so-pin-file FILE", options_->soPinFile, "File with the security officer password");
    addFile(unlocked, "--new-pin-file FILE", options_->newPinFile, "File with the new user password");
    addYes(add("remove", "Deletes a token with all its keys.", true,
               [](TokenOptions& options) { return remove(options); }));
  }

  const Command group_;
  const std::shared_ptr<TokenOptions> options_ = std::make_shared<TokenOptions>();
};

}  // namespace

void addTokenCommands(const Command& program) { const TokenCommands added(program); }

}  // namespace tool
