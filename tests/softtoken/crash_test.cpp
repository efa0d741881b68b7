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
// The labels of the keys, and "password" while the password is the second one.
using Things = std::set<std::string>;

int kills = 100;
constexpr const char* passwords[] = {pin, "second password"};

// Makes and deletes keys, and changes the password if it is alone, until it is killed. Reports before each change the
// thing that it makes or removes, and "done" after it. Keys are named after their writer, who does not touch those of
// others.
int runWriter(const std::string& name, const char* report, const char* device, std::size_t password, bool alone) {
  std::FILE* const out = std::fopen(report, "ab");
  std::setvbuf(out, nullptr, _IONBF, 0);
  const auto say = [&](const std::string& line) { std::fputs((line + "\n").c_str(), out); };
  std::mt19937 random{std::random_device()()};
  // Deriving a key from the password takes longest, so it comes before "ready". The time is limited, because a test
  // that was killed does not kill its writers.
  int left = 0;
  int status = tavrin_validatePassword(device, passwords[password], 1, &left, nullptr);
  const auto end = std::chrono::steady_clock::now() + 1min;
  say(status == ok ? "ready" : "no login");
  for (int made = 0; status == ok && std::chrono::steady_clock::now() < end; ++made) {
    const char* const old = passwords[password];
    const auto& keys = tavrin_getKeyPairList(device, nullptr);
    const auto key = std::ranges::find_if(keys, [&](const auto& record) { return record.label[0] == name[0]; });
    const unsigned choice = random() % 32;
    if (alone && choice < 4) {
      say("password");
      password = 1 - password;
      if (!tavrin_changeUserPassword(device, old, passwords[password], &left, false, false, nullptr)) status = -1;
    } else if (choice < 20 && key != keys.end()) {  // more often than keys are made, or the token would get full
      say(key->label);
      status = tavrin_deleteKeyPair(device, key->recordId, old, false, nullptr);
    } else {
      TavrinKeyPair pair{};
      pair.keyType = 5;
      softtoken::setLabel(pair.label, name + "." + std::to_string(made));
      say(pair.label);
      status = tavrin_generateKeyPair(device, old, &pair, nullptr);
    }
    say(status == ok ? "done" : "status " + std::to_string(status));
  }
  return 1;
}

class CrashTest : public SoftTokenTest {
 protected:
  void SetUp() override {
    SoftTokenTest::SetUp();
    masterKey_ = otherProcess().unlockForUser(pin).masterKey;
  }

  void change(const std::string& thing) {
    if (expected_.erase(thing) == 0) expected_.insert(thing);
  }

  // Starts writers, kills them after a random time and compares.
  void round(int number, const std::string& letters) {
    std::map<std::string, std::intptr_t> writers;  // by their reports
    for (const char letter : letters) {
      const std::string report = (root / (std::string(".report-") + letter)).string();
      fs::remove(report);
      writers[report] = testPlatform::startSelf({"--writer", letter + std::to_string(number), report, device,
                                                 std::to_string(expected_.count("password")),
                                                 letters.size() == 1 ? "alone" : "together"});
    }
    for (const auto& [report, process] : writers)
      for (int i = 0; i < 50'000 && linesOf(report).empty(); ++i) std::this_thread::sleep_for(1ms);
    for (const auto& [report, process] : writers) {
      // Only a writer that is alone changes the password, which takes longer than the other operations.
      const unsigned longest = letters.size() == 1 ? 250'000 : 50'000;
      std::this_thread::sleep_for(std::chrono::microseconds(random_() % longest));
      EXPECT_TRUE(testPlatform::killProcess(process)) << "it has ended by itself: " << linesOf(report).back();
    }
    Things pending;
    for (const auto& [report, process] : writers) {
      std::string thing;
      for (const std::string& line : linesOf(report)) {
        if (line == "done") {
          change(std::exchange(thing, ""));
          ++done_;
        } else if (line != "ready") {
          thing = line;
        }
      }
      if (!thing.empty()) pending.insert(thing);
    }
    compare(pending);
  }

  static std::vector<std::string> linesOf(const std::string& name) {
    std::vector<std::string> lines;
    std::ifstream file(name);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  // Tries the password only if its change was under way. If a password is lost, the next writer's login fails.
  void compare(const Things& pending) {
    softtoken::Token token = otherProcess();
    Things found;
    const auto state = token.state();
    for (const softtoken::StoredKeyPair& pair : state->keyPairs) {
      EXPECT_TRUE(unseal(masterKey_, pair.sealedPrivateKey, privateKeyContext(*state, pair))) << pair.label;
      found.insert(pair.label);
    }
    EXPECT_EQ(found.size(), state->objectCount()) << "an object twice";
    const bool inDoubt = pending.contains("password");
    if (inDoubt ? opens(token, passwords[1]) : expected_.contains("password")) found.insert("password");
    // Each operation that was under way may have happened or not.
    for (const std::string& thing : pending)
      if (found.contains(thing) != expected_.contains(thing)) change(thing);
    EXPECT_EQ(found, expected_);
  }

  static bool opens(softtoken::Token& token, const std::string& password) try {
    return !token.unlockForUser(password).masterKey.empty();
  } catch (const softtoken::Failure&) {
    return false;
  }

  softtoken::MasterKey masterKey_;
  Things expected_;
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
  EXPECT_GT(done_, killed / 4) << "writers hardly begin";
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
    return runWriter(given[1], given[2].c_str(), given[3].c_str(), given[4] == "1", given[5] == "alone");
  testing::InitGoogleTest(&argc, argv);  // takes its own arguments away
  if (argc == 3 && std::string(argv[1]) == "--kills") {
    kills = std::stoi(argv[2]);
  } else if (argc != 1) {
    std::fprintf(stderr, "crash_test [--kills NUMBER], besides the options of GoogleTest\n");
    return 2;
  }
  return RUN_ALL_TESTS();
}
