#pragma once

#include <windows.h>

#include <string>

namespace hosts::flashlog {

/// Whether a page may be written to a file. @return ERROR_SUCCESS when there is none, or one of these pages;
/// ERROR_FILE_EXISTS when it is something else; otherwise what keeps from looking.
DWORD LookAtPageFile(const std::wstring& path);
/// Never half a page, for somebody may have it open, and in the place of nothing but a page. @return the
/// system's error.
DWORD WritePageFile(const std::wstring& path, const std::string& page);

}  // namespace hosts::flashlog
