// A device library that plays a script: it needs no token, records each call and fails on demand.
//
// Its results can be read by eye: the hash of "ab" with code 3 is "H3(ab)", a signature "S(input)", a ciphertext
// "E(data)", a plaintext "P(ciphertext)", a shared secret "Z(peer point)". A certificate is the text
// "subject|issuer|serial", and anything without two bars does not parse.
//
// Each call of the test's thread becomes one line, such as
//   signHash TK1 key-1 pin='1234' input='ab' room=1024 flag=0 inst pss=1
// where bytes that are no plain text are written in upper-case hexadecimal. "inst", "null" or "stray" is the instance.
// Calls of other threads are played, but not recorded. All operations may be called from any thread.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "devlib/device_library.h"

namespace fake {

struct Device {
  TokenInfo info;  // the device is listed by its serial number, or as "none" if it has none
  std::vector<TavrinKeyPair> keyPairs;
  std::vector<TavrinCertificate> certificates;
  bool initialized = true;  // the lists of a device that is not are empty, until tavrin_initDevice
};

struct Fault {
  enum class Kind {
    status,       // the operation returns `value`, or false, and does nothing
    nothing,      // it succeeds, but returns no instance, no buffer or no record
    length,       // it succeeds, but says that its result is `value` bytes long
    outOfMemory,  // it throws std::bad_alloc
    failure,      // it throws std::runtime_error
  };
  std::string operation;  // without its prefix; "monitor" is the listing of devices by another thread than the test's
  Kind kind;
  int value;
  int call;  // strikes at the operation's call of this number, counted from now
};

struct Script {
  std::vector<Device> devices;  // in the order of their listing
  std::list<Fault> faults;      // each strikes once; those of one operation in their order
  int counter = 0;              // what the password operations report as tries left or failures
  std::vector<std::pair<std::string, std::vector<std::uint8_t>>> files;  // what the folder of CA files holds
  std::uint32_t nextId = 0x20;                                           // of the next record that is created
  bool resultsAsLongAsReal = false;  // hashes, signatures and so on are padded or cut to the length of their kind
  std::function<void(const std::string&)> record;  // receives each line, on the test's thread
};

// The script, locked against the operations as long as this lives. Use it in one expression: edit()->devices.clear().
class Editor {
 public:
  Editor();
  Script* operator->() const;

 private:
  std::unique_lock<std::shared_mutex> lock_;
};
inline Editor edit() { return {}; }

// An empty script; the calling thread becomes the test's.
void reset();
void fail(const std::string& operation, int status, int call = 1);
void fault(const std::string& operation, Fault::Kind kind, int value = 0, int call = 1);

// How often other threads than the test's have listed the devices since the last reset().
int backgroundListings();

// `number` is both the id and the last part of the recordId; the key id is "id-" and the number.
Device device(const std::string& serialNumber);
TavrinKeyPair keyPair(std::uint32_t number, std::uint32_t keyType, const std::string& publicKey,
                      const std::string& label, std::uint32_t usage = 3);
TavrinCertificate certificate(std::uint32_t number, const std::string& der, const std::string& label);

// In upper case and without separators.
std::string hex(const void* bytes, std::size_t length);

}  // namespace fake
