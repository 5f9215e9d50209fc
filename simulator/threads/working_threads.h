#pragma once

namespace simulator {

/// Which of the product's threads are at work and which of them wait. An elastic clock lets time fly only
/// while all of them wait. Process-wide; any thread.
namespace working_threads {

/// A thread of the product begins, told by whoever creates it; and ends, told by itself.
void Begin();
void End();
/// From here on the calling thread is one of the product's.
void JoinCallingThread();
/// Ends the calling thread's membership, if it has one.
void LeaveCallingThread();

/// The product did something that the simulation saw.
void NoteActivity();
/// Whether any thread is at work. One that showed no activity for a while is taken to be blocked.
bool AnyAtWork();

/// While it lives, the calling thread waits.
class Rest {
 public:
  Rest();
  ~Rest();
  Rest(const Rest&) = delete;
  Rest& operator=(const Rest&) = delete;

 private:
  bool m_IsMember;
};

}  // namespace working_threads

}  // namespace simulator
