// Who has the state: changed by C_Initialize and C_Finalize alone.
#pragma once

#include "standard/state.h"

namespace tavrin::standard {

struct Lifecycle {
  std::mutex changing;    // held by C_Initialize and C_Finalize
  std::mutex stateMutex;  // guards `state`; held for nothing else
  std::shared_ptr<State> state;
  void* pin = nullptr;  // keeps this library loaded while there is a state
};

extern Lifecycle& lifecycle;

}  // namespace tavrin::standard
