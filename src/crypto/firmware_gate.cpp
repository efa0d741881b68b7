#include "crypto/firmware_gate.h"

#include "slots/firmware_version.h"

namespace tavrin {

bool firmwareHasPssAndOaep(const Session& session) {
  return compareVersions(session.device.firmwareVersion, "2.0.0") >= 0;
}

}  // namespace tavrin
