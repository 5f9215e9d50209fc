#pragma once

namespace hosts {

/// How the flash service is known to the service manager.
inline constexpr wchar_t kServiceName[] = L"CorvelFlashService";

}  // namespace hosts
