#include "simulator/call_thunk.h"

#include <bit>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

#if !defined(__x86_64__) && !defined(_M_X64)
#error "The thunks are code for x64."
#endif

namespace simulator {

namespace {

constexpr std::size_t kThunkSize = 128;

/// Writes machine code behind each other.
class Assembler {
 public:
  explicit Assembler(std::uint8_t* at) : m_At(at) {}

  Assembler& Code(std::initializer_list<int> bytes) {
    for (const int byte : bytes) *m_At++ = static_cast<std::uint8_t>(byte);
    return *this;
  }
  template <typename Pointer>
  Assembler& Address(Pointer pointer) {
    const auto address = std::bit_cast<std::uint64_t>(pointer);
    std::memcpy(m_At, &address, sizeof address);
    m_At += sizeof address;
    return *this;
  }

 private:
  std::uint8_t* m_At;
};

}  // namespace

ThunkPage::ThunkPage(std::size_t thunks)
    : m_Code(static_cast<std::uint8_t*>(
          ::VirtualAlloc(nullptr, thunks * kThunkSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE))),
      m_Size(thunks * kThunkSize) {
  if (m_Code == nullptr) throw std::runtime_error("no memory for the hooks");
}

void* ThunkPage::AddCall(DecideFunction decide, void* context, const std::atomic<void*>* target) {
  std::uint8_t* const begin = m_Code + m_Used;
  m_Used += kThunkSize;
  Assembler(begin)
      .Code({0x51, 0x52, 0x41, 0x50, 0x41, 0x51})  // push rcx, rdx, r8, r9
      .Code({0x48, 0x83, 0xEC, 0x68})              // sub rsp, 0x68: the stack is aligned now
      .Code({0xF3, 0x0F, 0x7F, 0x44, 0x24, 0x20})  // movdqu [rsp+0x20], xmm0
      .Code({0xF3, 0x0F, 0x7F, 0x4C, 0x24, 0x30})  // movdqu [rsp+0x30], xmm1
      .Code({0xF3, 0x0F, 0x7F, 0x54, 0x24, 0x40})  // movdqu [rsp+0x40], xmm2
      .Code({0xF3, 0x0F, 0x7F, 0x5C, 0x24, 0x50})  // movdqu [rsp+0x50], xmm3
      .Code({0x48, 0xB9})
      .Address(context)                      // mov rcx, context
      .Code({0x48, 0x8D, 0x54, 0x24, 0x68})  // lea rdx, [rsp+0x68]
      .Code({0x48, 0xB8})
      .Address(decide)                             // mov rax, decide
      .Code({0xFF, 0xD0})                          // call rax
      .Code({0xF3, 0x0F, 0x6F, 0x44, 0x24, 0x20})  // movdqu xmm0, [rsp+0x20]
      .Code({0xF3, 0x0F, 0x6F, 0x4C, 0x24, 0x30})  // movdqu xmm1, [rsp+0x30]
      .Code({0xF3, 0x0F, 0x6F, 0x54, 0x24, 0x40})  // movdqu xmm2, [rsp+0x40]
      .Code({0xF3, 0x0F, 0x6F, 0x5C, 0x24, 0x50})  // movdqu xmm3, [rsp+0x50]
      .Code({0x48, 0x83, 0xC4, 0x68})              // add rsp, 0x68
      .Code({0x41, 0x59, 0x41, 0x58, 0x5A, 0x59})  // pop r9, r8, rdx, rcx
      .Code({0x84, 0xC0, 0x75, 0x0D})              // test al, al; jnz answered
      .Code({0x49, 0xBB})
      .Address(target)                  // mov r11, target
      .Code({0x41, 0xFF, 0x23})         // jmp [r11]
      .Code({0x48, 0x89, 0xC8, 0xC3});  // answered: mov rax, rcx; ret
  return begin;
}

void* ThunkPage::AddReturn(FinishFunction finish) {
  std::uint8_t* const begin = m_Code + m_Used;
  m_Used += kThunkSize;
  Assembler(begin)
      .Code({0x50})                          // push rax: room for the address to return to
      .Code({0x48, 0x83, 0xEC, 0x28})        // sub rsp, 0x28: the stack is aligned now
      .Code({0x48, 0x8D, 0x4C, 0x24, 0x28})  // lea rcx, [rsp+0x28]
      .Code({0x48, 0xB8})
      .Address(finish)                        // mov rax, finish
      .Code({0xFF, 0xD0})                     // call rax
      .Code({0x48, 0x83, 0xC4, 0x28, 0xC3});  // add rsp, 0x28; ret
  return begin;
}

void ThunkPage::Seal() {
  DWORD before = 0;
  if (!::VirtualProtect(m_Code, m_Size, PAGE_EXECUTE_READ, &before))
    throw std::runtime_error("the hooks cannot be made code");
  ::FlushInstructionCache(::GetCurrentProcess(), m_Code, m_Size);
}

}  // namespace simulator
