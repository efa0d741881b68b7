// The state of a token after its writers were killed, or when the disk takes only a part of what they write.
// crash_test --kills N kills N writers. This program is the writer too, as crash_test --writer ...
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "soft_token_fixture.h"
#include "softtoken/token_objects.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Things = std::set<std::string>;  // "password:..." and the keys, "key:..."

int kills = 100;
constexpr int fewTries = 4;  // with fewer, only the right password is used

// Does random operations until it is killed. Reports before each operation "intend REMOVED|ADDED", with the things that
// it removes and adds, and after it "done TRIES". Keys are named after their writer, who does not touch those of
// others.
struct Writer {
  // Deriving a key from the password takes longest, so it comes before "ready". The time is limited, because a test
  // that was killed does not kill its writers.
  bool run() {
    std::setvbuf(out, nullptr, _IONBF, 0);
    const auto end = std::chrono::steady_clock::now() + 1min;
    bool good = report("-", "-", [&] { return enter(password); });
    say("ready");
    while (good && std::chrono::steady_clock::now() < end) good = step(random() % 32);
    return good;
  }

  void say(const std::string& line) { std::fputs((line + "\n").c_str(), out); }

  template <class Body>
  bool report(const std::string& removed, const std::string& added, Body body) {
    say("intend " + removed + "|" + added);
    const int status = body();
    const std::int32_t tries = tavrin_getTokenInfo(device, nullptr).remainingRetries;
    say(status == ok ? "done " + std::to_string(tries) : "failed " + std::to_string(status));
    return status == ok;
  }

  int enter(const std::string& tried) {
    int left = 0;
    return tavrin_validatePassword(device, tried.c_str(), 1, &left, nullptr);
  }

  bool step(unsigned choice) {
    const auto mine = [&](const auto& record) { return record.label[0] == name[0]; };
    const auto& keys = tavrin_getKeyPairList(device, nullptr);
    const auto key = std::ranges::find_if(keys, mine);
    const std::string oldKey = key == keys.end() ? "" : std::string("key:") + key->label;
    const std::string fresh = name + "." + std::to_string(++made);
    const char* pin = password.c_str();
    if (alone && choice < 3) {
      if (tavrin_getTokenInfo(device, nullptr).remainingRetries <= fewTries) return true;
      return report("wrong", "-", [&] { return enter("wrong") == wrongPassword ? ok : -1; });
    }
    if (alone && choice == 3) {
      const std::string old = std::exchange(password, fresh);
      return report("password:" + old, "password:" + fresh, [&] {
        int left = 0;
        return tavrin_changeUserPassword(device, old.c_str(), fresh.c_str(), &left, false, false, nullptr) ? ok : -1;
      });
    }
    if (choice < 16 && !oldKey.empty())
      return report(oldKey, "-", [&] { return tavrin_deleteKeyPair(device, key->recordId, pin, false, nullptr); });
    TavrinKeyPair pair{};
    pair.keyType = 5;
    softtoken::setLabel(pair.label, fresh);
    return report("-", "key:" + fresh, [&] { return tavrin_generateKeyPair(device, pin, &pair, nullptr); });
  }

  const std::string name;
  std::FILE* const out;
  const char* const device;
  std::string password;
  const bool alone;
  std::mt19937 random{std::random_device()()};
  int made = 0;
};

class CrashTest : public SoftTokenTest {
 protected:
  struct Change {
    std::string removed, added;
  };

  void SetUp() override {
    SoftTokenTest::SetUp();
    masterKey_ = otherProcess().unlockForUser(pin).masterKey;
  }

  static std::string passwordIn(const Things& things) { return things.rbegin()->substr(9); }

  static void apply(const Change& change, Things& things) {
    things.erase(change.removed);
    if (change.added != "-") things.insert(change.added);
  }

  // Starts writers, kills them after a random time and compares.
  void round(int number, const std::string& letters) {
    std::map<std::string, std::intptr_t> writers;  // by their reports
    for (const char letter : letters) {
      const std::string report = (root / (std::string(".report-") + letter)).string();
      fs::remove(report);
      writers[report] = testPlatform::startSelf({"--writer", letter + std::to_string(number), report, device,
                                                 passwordIn(expected_), letters.size() == 1 ? "alone" : "together"});
    }
    for (const auto& [report, process] : writers)
      for (int i = 0; i < 50'000 && linesOf(report).size() < 3; ++i) std::this_thread::sleep_for(1ms);
    std::vector<Change> pending;
    for (const auto& [report, process] : writers) {
      // Only a writer that is alone changes its password, which takes longer than the other operations.
      const unsigned longest = letters.size() == 1 ? 250'000 : 50'000;
      std::this_thread::sleep_for(std::chrono::microseconds(random_() % longest));
      EXPECT_TRUE(testPlatform::killProcess(process)) << "it has ended by itself";
    }
    for (const auto& [report, process] : writers) readReport(linesOf(report), pending);
    compare(pending);
  }

  static std::vector<std::string> linesOf(const std::string& name) {
    std::vector<std::string> lines;
    std::ifstream file(name);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  void readReport(const std::vector<std::string>& lines, std::vector<Change>& pending) {
    Change change;
    for (const std::string& line : lines) {
      if (line.starts_with("intend ")) {
        const auto bar = line.find('|');
        change = {line.substr(7, bar - 7), line.substr(bar + 1)};
        if (change.removed != "wrong") maxTries_ = softtoken::maxTries;
      } else if (line.starts_with("done ")) {
        maxTries_ = std::stoi(line.substr(5));
        apply(std::exchange(change, {}), expected_);
        ++done_;
      } else {
        EXPECT_EQ(line, "ready");
      }
    }
    if (!change.removed.empty()) pending.push_back(change);
  }

  void compare(const std::vector<Change>& pending) {
    softtoken::Token token = otherProcess();
    const auto left = [&] { return static_cast<int>(token.tries().user); };
    EXPECT_LE(left(), maxTries_);
    maxTries_ = left();

    Things found;
    const auto state = token.state();
    for (std::size_t i = 0; i < state->keyPairs.size(); ++i) {
      const TavrinKeyPair& pair = state->keyPairs[i];
      EXPECT_TRUE(unseal(masterKey_, state->privateKeys[i], privateKeyContext(*state, pair))) << pair.label;
      found.insert(std::string("key:") + pair.label);
    }
    EXPECT_EQ(found.size(), state->objectCount()) << "an object twice";

    // Each operation that was under way may have happened or not.
    std::vector<Things> allowed{expected_};
    for (const Change& change : pending) {
      for (Things things : std::vector(allowed)) {
        apply(change, things);
        allowed.push_back(things);
      }
    }
    // A wrong password costs a try, so the password is only checked when it is in doubt, or to get all tries back.
    const bool ask = maxTries_ <= fewTries || (!pending.empty() && pending[0].added.starts_with("password:"));
    const auto fits = std::ranges::find_if(allowed, [&](const Things& things) {
      return std::equal(things.begin(), std::prev(things.end()), found.begin(), found.end()) &&
             (!ask || opens(token, passwordIn(things)));
    });
    ASSERT_NE(fits, allowed.end()) << testing::PrintToString(found) << " instead of "
                                   << testing::PrintToString(expected_);
    expected_ = *fits;
    maxTries_ = left();
  }

  static bool opens(softtoken::Token& token, const std::string& password) {
    try {
      int left = 0;
      return !token.unlock(softtoken::Role::user, password, left).masterKey.empty();
    } catch (const softtoken::Failure&) {
      return false;
    }
  }

  softtoken::MasterKey masterKey_;
  Things expected_{std::string("password:") + pin};  // the password is the last
  int maxTries_ = softtoken::maxTries;
  int done_ = 0;
  std::mt19937 random_{std::random_device()()};
};

TEST_F(CrashTest, KilledWritersLoseNothingThatTheyReported) {
  int killed = 0;
  for (int number = 0; killed < kills && !HasFailure(); ++number) {
    SCOPED_TRACE("round " + std::to_string(number));
    const std::string letters = number % 2 == 0 ? "ab" : "a";
    round(number, letters);
    killed += static_cast<int>(letters.size());
  }
  std::printf("%d kills, %d operations finished before\n", killed, done_);
  EXPECT_GT(done_, killed) << "only the first of each writer";
}

TEST_F(CrashTest, ATryIsWrittenDownBeforeItIsMade) {
  // So expensive that it takes a large part of a second.
  edit([](softtoken::TokenState& state) { state.user.cost = {1u << 16, 2}; });
  std::atomic<bool> answered = false;
  std::thread attempt([&] {
    EXPECT_EQ(login("wrong"), wrongPassword);
    answered = true;
  });
  while (otherProcess().tries().user == softtoken::maxTries && !answered) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(answered) << "a kill in between would have given the try back";
  attempt.join();
}

TEST_F(CrashTest, ADiskThatTakesOnlyAPartChangesNothing) {
  const TavrinKeyPair key = generate(5);
  const auto contents = [&] {
    std::map<fs::path, Bytes> files;
    for (const auto& entry : fs::directory_iterator(tokenFolder()))
      files[entry.path().filename()] = softtoken::readFile(entry.path(), 1 << 20).value();
    return files;
  };
  auto before = contents();
  for (const Bytes& file : {before["token"], before["tries"]}) {
    for (std::size_t size = 0; size < file.size(); ++size) {
      EXPECT_THROW(softtoken::decodeTokenState(std::span(file).first(size)), softtoken::Failure) << size;
      EXPECT_THROW(softtoken::decodeTries(std::span(file).first(size)), softtoken::Failure) << size;
    }
  }
  const std::string label(100, 'L');
  const auto failsUpTo = [&](std::size_t last, auto&& call) {
    for (std::size_t size = 0; size < last && testPlatform::limitFileSize(size); ++size) {
      const int status = call(size);
      testPlatform::limitFileSize(std::nullopt);
      EXPECT_EQ(status, deviceFault) << size;
      EXPECT_EQ(contents(), before) << size;
    }
  };
  failsUpTo(before["token"].size() + label.size(), [&](std::size_t) {
    return tavrin_updateKeyPairDetails(device.c_str(), key.recordId, pin, label.c_str(), nullptr, 0, instance);
  });
  failsUpTo(before["tries"].size(), [&](std::size_t size) { return login(size % 2 ? pin : "wrong"); });
  EXPECT_EQ(login(pin), ok);
  EXPECT_EQ(sign(key, pattern(32)).status, ok);

  if (!testPlatform::limitFileSize(100)) return;
  EXPECT_THROW(softtoken::createToken({.name = "two", .label = "Second"}, pin, soPin), softtoken::Failure);
  testPlatform::limitFileSize(std::nullopt);
  EXPECT_FALSE(fs::exists(root / ".new-two"));
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> given(argv + 1, argv + argc);
  if (given.size() == 6 && given[0] == "--writer")
    return Writer{given[1], std::fopen(given[2].c_str(), "ab"), given[3].c_str(), given[4], given[5] == "alone"}.run()
               ? 0
               : 1;
  testing::InitGoogleTest(&argc, argv);  // takes its own arguments away
  if (argc == 3 && std::string(argv[1]) == "--kills") {
    kills = std::stoi(argv[2]);
  } else if (argc != 1) {
    std::fprintf(stderr, "crash_test [--kills NUMBER], besides the options of GoogleTest\n");
    return 2;
  }
  return RUN_ALL_TESTS();
}
