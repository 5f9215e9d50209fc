#pragma once

#include "toolkitexport.h"

struct _SECURITY_ATTRIBUTES;

/// Owner of one Windows mutex. Any thread may use it; only the thread that locked it may unlock it.
class CORVEL_TOOLKIT_API CMutex {
 public:
  /// Creates or opens a mutex; a failure leaves the object without one, and Lock and Unlock then fail.
  /// Without arguments: a new mutex that has no name and no owner.
  ///
  /// @param flag        when creating: the calling thread owns the mutex at once;
  ///                    when opening: child processes inherit the handle.
  /// @param name        ANSI name, or null for an unnamed mutex.
  /// @param create      true creates (or opens, when the name exists); false only opens, for synchronising.
  /// @param attributes  security of a created mutex, may be null; not kept. Not used when opening.
  explicit CMutex(bool flag = false, const char* name = nullptr, bool create = true,
                  _SECURITY_ATTRIBUTES* attributes = nullptr);
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;
  /// Closes the handle. Does not unlock.
  virtual ~CMutex();

  /// Waits for the mutex for `timeout` milliseconds; 0xFFFFFFFF waits without limit.
  ///
  /// @return 0 when acquired; 0x80070080 when acquired from a thread that ended while it held it (the
  ///         caller owns it all the same); 0x80070102 on time-out; 0x80004005 without a mutex; otherwise
  ///         the failure as an HRESULT.
  long Lock(unsigned long timeout);

  /// Releases the mutex.
  ///
  /// @return 0; 0x80070120 when the calling thread does not own it; 0x80004005 without a mutex.
  long Unlock();

 private:
  void* m_Handle;
};
