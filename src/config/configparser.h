#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <string_view>

#include "common/dom.h"
#include "common/handles.h"
#include "common/tstring.h"
#include "config/elementtree.h"

/// The service's settings, read once per process from "CorvelConfig.ini" beside the host's executable.
/// Made and loaded by one thread at start; only read afterwards.
class CConfigParser {
 public:
  /// The singleton, made on first use; enters the multithreaded COM apartment on the calling thread.
  /// Null when COM refuses, for instance on a thread of another apartment.
  static CConfigParser* GetInstance();
  /// The same without Init: no keys, no file, no log file name.
  static CConfigParser* GetInstance_CmdLine();
  /// Destroys the singleton and undoes its COM use, when the calling thread is the one that began it.
  static void ReleaseInstance();
  /// Drops the singleton while the process ends: COM is no longer there to be left.
  static void ReleaseAtProcessExit();

  // What the settings say, or their defaults while there is no configuration.
  static CTString ConfiguredRegistryLocation();
  static CTString ConfiguredFirmwareFolder();
  static CTString ConfiguredIPCType();
  static int ConfiguredTraceLevel();
  static int ConfiguredRebootType();
  static int ConfiguredEraseMode();

  virtual ~CConfigParser();

  /// Resets all settings and fixes where the settings file and the debug log lie.
  /// @return false when the folder of the host's executable is unknown; there is no file to load then.
  bool Init();
  /// Reads the file that Init fixed, whatever `path` is. One that cannot be read to its end leaves all
  /// settings at their defaults. @return true when it is loaded, now or before.
  bool LoadConfig(const wchar_t* path);
  /// Stores one setting; texts are cut to 511 characters. An unknown key changes nothing.
  void SetConfigVar(const wchar_t* key, const wchar_t* value);
  bool IsLoaded() const { return m_Loaded; }

  /// "PCIE" when exactly that is configured, else "USB".
  CTString GetIPCType();
  /// Stores the modem's bus type (UTF-8).
  void SetIPCType(const char* type);
  CTString GetRegistryLocation() const;
  CTString GetFirmwareFolder() const;
  int GetTraceLevel() const { return m_TraceLevel; }
  int GetRebootType() const { return m_RebootType; }
  int GetEraseMode() const { return m_EraseMode; }

  /// Reads the names and texts of the children of an XML file's root element. COM must be initialised on the
  /// calling thread, here and for SaveConfig.
  /// @return false, with the former resources kept, when the file cannot be read.
  bool LoadResource(const wchar_t* path);
  /// Rewrites an XML file in a readable form, indented and in UTF-8; FormatDocument says what may change.
  /// @return false when any step failed; the file is then as it was.
  bool SaveConfig(const wchar_t* path);
  bool IsResourceLoaded() const { return m_ResourceLoaded; }
  const CElementTree& Resources() const { return m_Resources; }

 private:
  CConfigParser();

  static HRESULT EnterComAndMake();
  bool EnteredComOnThisThread() const;
  void ResetSettings();
  void TakeLine(std::wstring_view line);

  static CConfigParser* m_Instance;

  Microsoft::WRL::ComPtr<IXMLDOMDocument> m_Document;
  Microsoft::WRL::ComPtr<IXMLDOMDocument> m_FormattedDocument;
  CElementTree m_Resources;
  std::map<std::wstring, int> m_Keys;
  CTString m_FileName;
  CTString m_FilePath;
  bool m_Loaded = false;
  bool m_ResourceLoaded = false;
  int m_TraceLevel = 0;
  int m_RebootType = 0;
  int m_EraseMode = 0;
  wchar_t m_RegistryLocation[512]{};
  wchar_t m_FirmwareFolder[512]{};
  wchar_t m_IpcType[512]{};
  // The open thread keeps the system from giving its id to another one.
  DWORD m_ComThreadId;
  corvel::UniqueHandle m_ComThread;
};
