#include "standard/operations.h"

#include "standard/module_calls.h"

namespace tavrin::standard {

KeyOperation::KeyOperation(const Mechanism& itsMechanism, std::shared_ptr<Object> itsKey)
    : mechanism(itsMechanism), key(std::move(itsKey)), logouts(key->token->logouts) {}

bool KeyOperation::isOver() const { return key->isPrivate && key->token->logouts != logouts; }

}  // namespace tavrin::standard
