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
  bool IsLoaded() const { return m_loaded; }

  /// "PCIE" when exactly that is configured, else "USB".
  CTString GetIPCType();
  /// Stores the modem's bus type (UTF-8).
  void SetIPCType(const char* type);
  CTString GetRegistryLocation() const;
  CTString GetFirmwareFolder() const;
  int GetTraceLevel() const { return m_traceLevel; }
  int GetRebootType() const { return m_rebootType; }
  int GetEraseMode() const { return m_eraseMode; }

  /// Reads the names and texts of the children of an XML file's root element. COM must be initialised on the
  /// calling thread, here and for SaveConfig.
  /// @return false, with the former resources kept, when the file cannot be read.
  bool LoadResource(const wchar_t* path);
  /// Rewrites an XML file in a readable form, indented and in UTF-8; FormatDocument says what may change.
  /// @return false when any step failed; the file is then as it was.
  bool SaveConfig(const wchar_t* path);
  bool IsResourceLoaded() const { return m_resourceLoaded; }
  const CElementTree& Resources() const { return m_resources; }

 private:
  CConfigParser();

  static HRESULT EnterComAndMake();
  bool EnteredComOnThisThread() const;
  void ResetSettings();
  void TakeLine(std::wstring_view line);

  static CConfigParser* m_instance;

  Microsoft::WRL::ComPtr<IXMLDOMDocument> m_document;
  Microsoft::WRL::ComPtr<IXMLDOMDocument> m_formattedDocument;
  CElementTree m_resources;
  std::map<std::wstring, int> m_keys;
  CTString m_fileName;
  CTString m_filePath;
  bool m_loaded = false;
  bool m_resourceLoaded = false;
  int m_traceLevel = 0;
  int m_rebootType = 0;
  int m_eraseMode = 0;
  wchar_t m_registryLocation[512]{};
  wchar_t m_firmwareFolder[512]{};
  wchar_t m_ipcType[512]{};
  // The open thread keeps the system from giving its id to another one.
  DWORD m_comThreadId;
  UniqueHandle m_comThread;
};
