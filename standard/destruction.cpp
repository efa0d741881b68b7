// C_DestroyObject.
#include "standard/call_frames.h"
#include "standard/object_changes.h"

using namespace tavrin;
using namespace tavrin::standard;

// Destroying a public key hides it. One whose private key was destroyed stays readable until it is destroyed too.
CK_RV C_DestroyObject(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject) {
  return sessionCall("C_DestroyObject", hSession, [&](const Call& call, State& state, Session& session) -> CK_RV {
    ModuleLock module(state);
    const auto object = requiredObject(module, session, hObject);
    requireWriteAccess(session, *object);
    if (object->moduleHandle == 0 && !object->attributes->flag(CKA_DESTROYABLE)) {
      return call.refuse(CKR_ACTION_PROHIBITED, "not destroyable, hObject=", hObject);
    }
    ObjectTable& objects = module.state().objects;
    if (object->moduleHandle == 0 || object->kept) {
      objects.drop(*object);
    } else if (object->objectClass == CKO_PUBLIC_KEY) {
      readAttributes(module, *object);
      objects.hide(*object);
    } else {
      deleteFromToken(module, *object);
    }
    return CKR_OK;
  });
}
