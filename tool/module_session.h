// The module, loaded and initialised as an application does it, and sessions with its tokens.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pkcs11.h"
#include "softtoken/bytes.h"

namespace tool {

// Throws Failure with the call's name and its result unless the result is CKR_OK.
void check(CK_RV result, const char* call);

// A loaded module. Unloaded when destroyed.
class LoadedModule {
 public:
  // Throws Failure when the file cannot be loaded or is no Cryptoki module. loadLibrary explains `warning`.
  LoadedModule(const std::filesystem::path& file, std::string& warning);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  CK_FUNCTION_LIST* functions() const { return functions_; }
  std::string path() const;  // as the system's loader reports it

 private:
  void* handle_;
  void* entry_ = nullptr;
  CK_FUNCTION_LIST* functions_ = nullptr;
};

// Calls C_Initialize, and C_Finalize when destroyed.
class InitialisedModule {
 public:
  explicit InitialisedModule(CK_FUNCTION_LIST* functions);
  ~InitialisedModule();
  InitialisedModule(const InitialisedModule&) = delete;
  InitialisedModule& operator=(const InitialisedModule&) = delete;

 private:
  CK_FUNCTION_LIST* functions_;
};

std::vector<CK_SLOT_ID> slotsWithToken(CK_FUNCTION_LIST* functions);

// Reads a text of a Cryptoki record, which ends at a NUL or is padded with blanks.
std::string textInField(const CK_UTF8CHAR* field, std::size_t size);
template <std::size_t size>
std::string textOf(const CK_UTF8CHAR (&field)[size]) {
  return textInField(field, size);
}

// An open session; closed when destroyed. The functions throw Failure when the module refuses a call. bytes() and
// text() return an empty value for an attribute that has none.
class Session {
 public:
  Session(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, bool readOnly);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  CK_SESSION_HANDLE handle() const { return handle_; }
  std::vector<CK_OBJECT_HANDLE> objects(CK_OBJECT_CLASS objectClass) const;
  softtoken::Bytes bytes(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
  std::string text(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
  CK_ULONG number(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;

 private:
  CK_FUNCTION_LIST* functions_;
  CK_SESSION_HANDLE handle_ = 0;
};

}  // namespace tool
