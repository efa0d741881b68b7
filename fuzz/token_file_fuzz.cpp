// The files of a software token. A file is refused or parsed. What was parsed is written back unchanged and can be used
// safely. The hash at the end of a file is not part of an input but added here, so that inputs pass its check.

#include "fuzz_input.h"
#include "softtoken/key_material.h"
#include "softtoken/token_objects.h"

namespace {

using namespace softtoken;

template <class Body>
bool accepted(Body body) {
  try {
    body();
    return true;
  } catch (const Failure&) {
    return false;
  }
}

void use(TokenState& state) {
  const Bytes digest(32);
  if (!state.keyPairs.empty()) {
    const StoredKeyPair& pair = state.keyPairs.front();
    const ByteView publicKey = ByteView(pair.publicKey).first(pair.publicKeyLength);
    const Bytes signature(isRsa(pair.keyType) ? publicKey.size() : 64, 1);
    requireThat(indexOfKeyPair(state, pair.recordId) == 0 && !unseal(digest, pair.sealedPrivateKey, {}));
    requireThat(!accepted([&] { verifyWith(pair.keyType, publicKey, digest, signature, false); }));
  }
  TavrinKeyPair added{};
  added.keyType = 5;
  const std::size_t before = state.objectCount();
  if (accepted([&] { addKeyPair(state, added, {}); }))
    requireThat(added.id >= 1 && added.id <= largestId && state.objectCount() == before + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes file(data, data + size);
  const Bytes hash = hashOf(GCRY_MD_SHA256, file);
  file.insert(file.end(), hash.begin(), hash.end());
  accepted([&] {
    TokenState state = decodeTokenState(file);
    const Bytes key(secretKeySize, 1);
    const Bytes written = encodeTokenState(state, key);
    const TokenState again = decodeTokenState(written);
    requireThat(isAuthentic(again, key) && !isAuthentic(state, key) && encodeTokenState(again, key) == written);
    use(state);
  });
  accepted([&] { requireThat(encodeTries(decodeTries(file)) == file); });
  return 0;
}
