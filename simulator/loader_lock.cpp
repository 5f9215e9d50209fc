#include "simulator/loader_lock.h"

#include <stdexcept>

namespace simulator {

namespace {

// ntdll's functions for those who must keep libraries from being loaded for a moment.
using LockFunction = LONG(NTAPI*)(ULONG flags, ULONG* disposition, ULONG_PTR* cookie);
using UnlockFunction = LONG(NTAPI*)(ULONG flags, ULONG_PTR cookie);

template <typename Function>
Function OfSystem(const char* name) {
  return reinterpret_cast<Function>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name));
}

}  // namespace

LoaderLock::LoaderLock() {
  const auto lock = OfSystem<LockFunction>("LdrLockLoaderLock");
  if (lock == nullptr || lock(0, nullptr, &m_Cookie) < 0)
    throw std::runtime_error("the loader lock cannot be taken");
}

LoaderLock::~LoaderLock() {
  OfSystem<UnlockFunction>("LdrUnlockLoaderLock")(0, m_Cookie);
}

}  // namespace simulator
