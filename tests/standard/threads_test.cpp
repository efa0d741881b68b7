// Many threads at once, each signature checked by libgcrypt against the key of its Init call. Under ThreadSanitizer
// too.
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "client.h"

namespace {

struct Key {
  CK_OBJECT_HANDLE handle, publicKey;
  std::string id, value;  // modulus or point
  bool ec;
};

// Eight keys, every other one for elliptic curves, with handles that any session may use.
std::vector<Key> makeKeys(Session& s) {
  std::vector<Key> result;
  for (int i = 0; i < 8; ++i) {
    const bool ec = i % 2 == 1;
    const std::string id = "thread " + std::to_string(i);
    const Template common{{CKA_TOKEN, true}, {CKA_LABEL, id}, {CKA_ID, id}};
    const Template own = ec ? common.with({{CKA_EC_PARAMS, p256}}) : common.with({{CKA_MODULUS_BITS, 2048}});
    is(s.generate(ec ? CKM_EC_KEY_PAIR_GEN : CKM_RSA_PKCS_KEY_PAIR_GEN, own, common.with({{CKA_SIGN, true}})), CKR_OK);
    result.push_back({s.made, s.madePublic, id, s.value(s.madePublic, ec ? CKA_EC_POINT : CKA_MODULUS), ec});
  }
  return result;
}

void signOften(const std::vector<Key>& keys, unsigned thread, unsigned rounds) {
  Session session(thread % 3 == 0 ? 0 : CKF_RW_SESSION);
  for (unsigned round = 0; round < rounds; ++round) {
    const Key& key = keys[(thread + round) % keys.size()];
    const std::string data = "thread " + std::to_string(thread) + ", round " + std::to_string(round);
    const std::string hash = hashed(CKM_SHA256, data);
    const bool raw = key.ec && (isSoftHsm() || round % 4 < 2);
    const CK_MECHANISM_TYPE type = raw ? CKM_ECDSA : key.ec ? CKM_ECDSA_SHA256 : CKM_SHA256_RSA_PKCS;
    is(session.run(sign, type, key.handle, raw ? hash : data, raw ? 0 : round % 2 * 5), CKR_OK);
    EXPECT_TRUE(verifies(key.value, hash, session.out)) << data;
  }
  is(f->C_CloseSession(session), CKR_OK);
}

TEST_F(KeysTest, SixteenThreadsSignWithEightKeys) {
  const std::vector<Key> keys = makeKeys(*owner_);
  constexpr unsigned signers = 16, rounds = 12;
  std::atomic<unsigned> signing = signers;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < signers; ++i) {
    threads.emplace_back([&keys, &signing, i] {
      signOften(keys, i, rounds);
      --signing;
    });
  }
  const auto meanwhile = [&](auto work) {
    threads.emplace_back([&signing, work] {
      for (unsigned round = 0; signing != 0; ++round) work(round);
    });
  };
  Session searcher(0), reader(0), hasher(0), generator;
  meanwhile([&](unsigned round) {
    const Key& key = keys[round % keys.size()];
    EXPECT_EQ(searcher.find({{CKA_CLASS, CKO_PRIVATE_KEY}, {CKA_ID, key.id}}), std::vector{key.handle});
  });
  meanwhile([&](unsigned round) {
    const Key& key = keys[round % keys.size()];
    EXPECT_EQ(reader.value(key.handle, CKA_LABEL), key.id);
    EXPECT_EQ(reader.value(key.publicKey, key.ec ? CKA_EC_POINT : CKA_MODULUS), key.value);
  });
  meanwhile([&](unsigned round) {
    const std::string data(1000 + round % 100, 'h');
    is(hasher.init(digest, CKM_SHA384), CKR_OK);
    is(hasher.once(digest, data), CKR_OK);
    EXPECT_EQ(hasher.out, hashed(CKM_SHA384, data));
  });
  meanwhile([&](unsigned) {
    is(generator.generate(CKM_EC_KEY_PAIR_GEN, {{CKA_EC_PARAMS, p384}}, {{CKA_TOKEN, false}}), CKR_OK);
    is(generator.destroy(generator.made), CKR_OK);
    is(generator.destroy(generator.madePublic), CKR_OK);
  });
  // The login of one token is none of the other's business.
  meanwhile([](unsigned) {
    const Session other(0, 1);
    is(other.login(), CKR_OK);
    EXPECT_EQ(other.state(), CKS_RO_USER_FUNCTIONS);
    is(f->C_CloseSession(other), CKR_OK);
  });
  std::thread waiter([] {
    CK_SLOT_ID slot = 0;
    is(f->C_WaitForSlotEvent(0, &slot, nullptr),
       differs(CKR_CRYPTOKI_NOT_INITIALIZED, CKR_FUNCTION_NOT_SUPPORTED, "it cannot wait"));
  });
  for (std::thread& thread : threads) thread.join();
  for (const Key& key : keys) all(CKR_OK, {owner_->destroy(key.handle), owner_->destroy(key.publicKey)});
  EXPECT_EQ(owner_->find({}).size(), 4U);
  is(f->C_Finalize(nullptr), CKR_OK, "which wakes who waits");
  waiter.join();
  is(f->C_Initialize(nullptr), CKR_OK);
}

// Threads whose sessions, logins and objects are taken away get the codes for that, and nothing crashes.
TEST_F(KeysTest, SessionsCloseUnderTheirUsers) {
  if (isSoftHsm()) GTEST_SKIP() << "it crashes";
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!over) {
        Session s;
        static_cast<void>(s.login());
        const CK_RV code = s.init(sign, CKM_SHA256_RSA_PKCS, rsa_);
        const Expected lost{CKR_OK,
                            CKR_SESSION_HANDLE_INVALID,
                            CKR_SESSION_CLOSED,
                            CKR_KEY_HANDLE_INVALID,
                            CKR_USER_NOT_LOGGED_IN,
                            CKR_OPERATION_NOT_INITIALIZED,
                            CKR_OBJECT_HANDLE_INVALID};
        if (is(code, lost) && code == CKR_OK) is(s.once(sign, "data"), lost);
        f->C_CloseSession(s);  // or a slow machine would have more and more of them to close
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    is(f->C_CloseAllSessions(slotOf(0)), CKR_OK);
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
}

// A key pair for a session that is still being generated ends with the login like those that exist.
TEST_F(KeysTest, LogoutDuringGeneration) {
  if (isSoftHsm()) GTEST_SKIP() << "it generates under a lock";
  Session generator;
  const Template common{{CKA_TOKEN, false}, {CKA_ID, std::string("unfinished")}};
  std::thread thread([&] {
    is(generator.generate(CKM_RSA_PKCS_KEY_PAIR_GEN, common.with({{CKA_MODULUS_BITS, 3072}}), common),
       {CKR_OK, CKR_USER_NOT_LOGGED_IN});
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  is(f->C_Logout(*owner_), CKR_OK);
  thread.join();
  is(owner_->login(), CKR_OK);
  EXPECT_TRUE(owner_->find({{CKA_CLASS, CKO_PRIVATE_KEY}, {CKA_ID, std::string("unfinished")}}).empty());
}

// With a token of its own, which is of no use afterwards.
TEST_F(StandardTest, PinsThatAreLocked) {
  if (isSoftHsm()) GTEST_SKIP() << "it never locks a PIN";
  const Session session(0, 2);
  const auto flags = [] {
    CK_TOKEN_INFO info{};
    is(f->C_GetTokenInfo(slotOf(2), &info), CKR_OK);
    return info.flags & (CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY | CKF_USER_PIN_LOCKED);
  };
  std::set<CK_FLAGS> seen;
  for (int tries = 0; tries < 20 && (flags() & CKF_USER_PIN_LOCKED) == 0; ++tries) {
    seen.insert(flags());
    is(session.login(CKU_USER, "not the PIN"), {CKR_PIN_INCORRECT, CKR_PIN_LOCKED});
  }
  const CK_FLAGS low = CKF_USER_PIN_COUNT_LOW;
  EXPECT_EQ(seen, (std::set<CK_FLAGS>{0, low, low | CKF_USER_PIN_FINAL_TRY}));
  EXPECT_NE(flags() & CKF_USER_PIN_LOCKED, 0U);
  is(session.login(), CKR_PIN_LOCKED);
}

}  // namespace
