#include "hosts/common/troubleshooting.h"

#include <algorithm>
#include <cstddef>

namespace hosts {

namespace {

using enum TroubleKind;

// What to do, where several rows say the same.
constexpr char kNothing[] = "Nothing.";
constexpr char kSeeEarlier[] =
    "Look at the errors before it in the same attempt: the first one tells the cause.";
constexpr char kFlashAgain[] = "Copy the images again and ask for the flash again.";
constexpr char kColdStart[] =
    "Ask for the flash again: a modem that was left in flash mode is found there. When it fails the same way "
    "twice, shut the PC down, wait half a minute, start it, and ask once more.";
constexpr char kFreeMemory[] =
    "Close programs that need much memory, or restart the PC, and ask for the flash again.";
constexpr char kModemDriver[] =
    "Look in the device manager whether the modem is there and its driver works. Install the modem's driver "
    "anew, restart the PC, and ask for the flash again.";
constexpr char kMobileBroadband[] =
    "The library resets the modem instead. When the flash fails all the same: restart the service WwanSvc "
    "(WLAN/WWAN AutoConfig) or the PC, and install the modem's Mobile Broadband driver anew.";
constexpr char kResetDriver[] =
    "Look in the device manager whether the driver that resets the modem (UDE) is installed and works; "
    "install it anew. "
    "\"corvel_cmdline check\" tells whether it is there.";
constexpr char kAtPort[] =
    "Close the program that has the modem's AT port. Restart the service (\"corvel_service stop\", "
    "\"corvel_service "
    "start\") before the next flash: this process does not get the port any more.";
constexpr char kNewImages[] =
    "Copy the images again from where they came, and compare their sizes. When it stays so, the image is "
    "damaged or "
    "belongs to another modem: get it anew.";
constexpr char kOpenImages[] =
    "Close what has the image open (a copy that still runs, a virus scanner), give the account of the host "
    "the right "
    "to read it, and ask for the flash again.";
constexpr char kFlashingLibrary[] =
    "Put the 64-bit Firmwareflashdownload.dll that belongs to this version beside the program, with all that "
    "it needs. "
    "\"corvel_cmdline check\" tells whether it can be used.";
constexpr char kConfiguration[] =
    "Put CorvelConfig.ini beside the program, close what has it open, and let \"corvel_cmdline check\" look "
    "at it.";
constexpr char kRegistry[] =
    "Run the host as an administrator or as the local system, and look at [RegistryLocation] in "
    "CorvelConfig.ini and "
    "at the rights of that key.";
constexpr char kFolder[] =
    "Look at [ModemAndNVMFirmwareFolder] in CorvelConfig.ini, at the drive and at the rights of the folder; "
    "copy the "
    "images there and ask for the flash again.";
constexpr char kXmlDocument[] =
    "Look whether the document is there, is well-formed XML and may be read and written by this account. The "
    "flash does not need it.";
constexpr char kMsxml[] = "Repair Windows' MSXML (\"sfc /scannow\"). The flash does not need it.";

const Trouble kTroubles[] = {
    // --- Start of a host ---------------------------------------------------------------------------------
    {"CConfigParser", "COM initialization failed with: %x", Cause,
     "COM could not be entered, so the configuration was not read.",
     "Restart the PC. A program that hosts the library must not have entered a single-threaded apartment "
     "before."},
    {"CConfigParser", "%s not exist, exit", Cause, "There is no configuration at this place.",
     kConfiguration},
    {"CConfigParser", "%s: file: %ls not exist!!!", Cause,
     "The configuration could not be opened: somebody else has it open.", kConfiguration},
    {"CConfigParser", "%s could not be read to its end, none of its settings is used", Cause,
     "Reading the configuration failed in the middle.", kConfiguration},
    {"ToolKit::Initialize", "Load Config failed, Initialize --", Consequence,
     "Without a configuration the service does not begin.", kConfiguration},
    {"ToolKit::Initialize", "CreateThread error: %d, Initialize --", Cause,
     "The system started no thread for the supervisor, so the service does not begin.", kFreeMemory},
    {"ToolKit::GetInstance", "CFirmwareCore::Initialize() failed", Cause,
     "There was no memory for the library's own object.", kFreeMemory},
    {"ToolKit::GetInstallationDir", "GetModuleFileName() failed with: 0x%08lx", Cause,
     "The folder of the program could not be found, or its path is longer than 259 characters.",
     "Install the program in a folder with a shorter path."},
    {"ToolKit::MakeDirectory", "CreateDirectory(%s) failed: %s", Cause,
     "A folder that a host asked for could not be made.",
     "Look at the drive and at the rights of the folder above."},

    // --- Handshake with the controlling program ----------------------------------------------------------
    {"ToolKit::MonitorFlashReadyFlag", "CreateEvent FAIL, monitor again after 5s", Cause,
     "The wait for a request could not begin; the service tries again every 5 s.", kFreeMemory},
    {"ToolKit::MonitorFlashReadyFlag", "RegOpenKeyEx FAIL, monitor again after 5s", Cause,
     "The key of the handshake is not there or may not be read; the service tries again every 5 s.",
     kRegistry},
    {"ToolKit::MonitorFlashReadyFlag", "RegNotifyChangeKeyValue FAIL, monitor again after 5s", Cause,
     "The system does not announce changes of the key; the service tries again every 5 s.", kRegistry},
    {"ToolKit::WriteRegistry", "Could not find or create registry key, GetLastError():%d", Cause,
     "The key of the handshake cannot be opened for writing, nor be made.", kRegistry},
    {"ToolKit::SetFlashTimeOut", "WriteRegistry SetFlashTimeOut failed", Consequence,
     "Time_Out was not written; the controlling program does not learn the time limit.", kRegistry},
    {"ToolKit::SetFlashProcess", "WriteRegistry SetFlashProcess failed", Consequence,
     "Flash_Progress was not written; the controlling program sees an old percentage.", kRegistry},
    {"ToolKit::SetFlashOnGoingFlag", "WriteRegistry SetFlashOnGoingFlag failed", Consequence,
     "Flash_OnGoing was not written; the controlling program sees an old value.", kRegistry},
    {"ToolKit::SetFlashResult", "WriteRegistry SetFlashResult failed", Consequence,
     "Flash_Result was not written; the controlling program does not learn how the flash stands.", kRegistry},
    {"ToolKit::SetFlashReadyFlag", "Could not set registry value", Consequence,
     "Fls_Ready was not set back; the same request may be carried out again.", kRegistry},

    // --- Images ------------------------------------------------------------------------------------------
    {"ToolKit::FetchModemNVMFls", "folder(%s) is not a folder, exit", Cause,
     "The firmware folder of the configuration does not exist.", kFolder},
    {"ToolKit::FetchModemNVMFls", "The search in folder(%s) broke off, no image is taken, error: %d", Cause,
     "The firmware folder could not be listed to its end; no image was taken.", kFolder},
    {"ToolKit::FetchModemNVMFls", "%s: FindFirstFile failed", Cause,
     "The firmware folder holds no *.fls file.", kFolder},
    {"ToolKit::",
     "Can't find available fls, monitor again, continue to monitor registry change and fetch modem/nvm files",
     Consequence, "No image was found, so nothing was flashed.", kFolder},
    {"CFirmwareDownloader::Download", "both Modem and NVM fls file is empty, Download --", Cause,
     "The folder was listed, but neither a modem image nor an NVM image was in it.", kFolder},
    {"CFirmwareDownloader", "File: %s cannot be opened, ERROR: %d", Cause,
     "The modem image could not be opened.", kOpenImages},
    {"CFirmwareDownloader", "GetFileSizeEx(%s) failed with: %d", Cause,
     "The size of an image could not be read.", kOpenImages},
    {"CFirmwareDownloader", "%s cannot be opened!", Harmless,
     "The NVM image could not be opened, or there is none beside an NVM image that takes the modem image's "
     "place.",
     "Nothing when the flash succeeded; otherwise close what has the NVM image open."},
    {"CFirmwareDownloader::Download", "IsFirmwareFileValid FAIL, %s --", Cause,
     "The modem image cannot be read or is empty; the modem was not touched.", kOpenImages},
    {"CFirmwareDownloader", "Could not get the memory class for %s(%d)", Cause,
     "The flashing library does not understand an item of the image, or cannot read the image.", kNewImages},
    {"CFirmwareDownloader", "Could not obtain memory class for %s(%d)", Consequence,
     "The list of the items of this image could not be made.", kNewImages},
    {"CFirmwareDownloader", "Could not get the flash technology for %s", Cause,
     "The flashing library does not understand the image, or cannot read it.", kNewImages},
    {"CFirmwareDownloader", "Could not get the number of downloadable items in %s", Cause,
     "The flashing library finds no table of contents in the image.", kNewImages},
    {"CFirmwareDownloader::Download", "MarkFirmwareFileForDownload FAIL, set FirmwareNotUpdated", Consequence,
     "The list of what is to be written could not be made; the modem was not touched.", kNewImages},
    {"ToolKit::DeleteFLSFiles", "DeleteFile(%s) failed with: %x", Cause,
     "An image could not be deleted when the job was over; the flash itself is not concerned.",
     "Delete it by hand before the next request, or it is flashed again."},
    {"ToolKit::DeleteFLSFiles", "DeleteFLSFiles ++", Harmless,
     "The images are being deleted. It is written as an error, and is none.", kNothing},
    {"ToolKit::DeleteFLSFiles", "DeleteFLSFiles --", Harmless,
     "The images are deleted. It is written as an error, and is none.", kNothing},

    // --- Flashing library --------------------------------------------------------------------------------
    {"CDownloadToolDll", "LoadLibrary of %s failed with: %d", Cause,
     "The flashing library is missing, or something that it needs is.", kFlashingLibrary},
    {"CDownloadToolDll", "GetProcAddress(%s) failed with: %d", Cause,
     "The flashing library lacks a function: it is of another version. Without _ZEMO_DL_out_of_session_comm "
     "a flash succeeds all the same.",
     kFlashingLibrary},
    {"CDownloadToolDll", "PROGRESS: InitCallback failed due to %s", Cause,
     "The flashing library refused to tell its progress; the flash goes on without percentages.",
     kFlashingLibrary},
    {"CFirmwareDownloader::GetInstance", "DownloadToolDll Load fail", Consequence,
     "The flashing library is not bound completely, or there was no memory for it.", kFlashingLibrary},
    {"CFirmwareDownloader", "Setting parameter, %d failed", Cause,
     "The flashing library refused a setting, or has no function for it.", kFlashingLibrary},
    {"CFirmwareDownloader", "InitializeParametersForDownload FAIL, %s --", Consequence,
     "The flashing library could not be set up; the modem was not touched.", kFlashingLibrary},
    {"CFirmwareDownloader", "Failed to get LocalAppDataDir for Modem download logging", Harmless,
     "The flashing library's own log was not prepared, for lack of memory. The flash goes on.", kNothing},
    {"CFirmwareDownloader", "TlsSetValue failed with: %d, Download --", Cause,
     "There was no memory to note for which attempt a thread works; the attempt counts as failed.",
     kFreeMemory},
    {"CFirmwareDownloader", "TlsSetValue failed with: %d, %s --", Cause,
     "There was no memory to note for which attempt a thread works; the modem was not booted.", kFreeMemory},

    // --- Into flash mode: Mobile Broadband ---------------------------------------------------------------
    {"", "CoInitializeEx initialization failed, 0x%x, RebootModemByMbimCmd --", Cause,
     "COM could not be entered for the Mobile Broadband service.", kMobileBroadband},
    {"", "CoCreateInstance(CLSID_MbnInterfaceManager***)  failed, 0x%x, RebootModemByMbimCmd --", Cause,
     "Windows' Mobile Broadband service does not answer.", kMobileBroadband},
    {"", "CoCreateInstance(CLSID_MbnDeviceServicesManager***) failed, 0x%x, RebootModemByMbimCmd --", Cause,
     "Windows' Mobile Broadband service does not answer.", kMobileBroadband},
    {"", "GetInterfaces FAIL, RebootModemByMbimCmd --", Cause,
     "Windows' Mobile Broadband service knows no modem.", kMobileBroadband},
    {"", "SafeArrayGetLBound FAIL, RebootModemByMbimCmd --", Cause,
     "The list of Mobile Broadband interfaces cannot be read.", kMobileBroadband},
    {"", "SafeArrayGetUBound FAIL, RebootModemByMbimCmd --", Cause,
     "The list of Mobile Broadband interfaces cannot be read.", kMobileBroadband},
    {"", "SafeArrayGetElement(IMbnInterface) FAILED hr=0x%X, RebootModemByMbimCmd --", Cause,
     "An entry of the list of Mobile Broadband interfaces cannot be read.", kMobileBroadband},
    {"", "pMbnInterface == NULL, RebootModemByMbimCmd --", Cause,
     "Windows' Mobile Broadband service knows no modem.", kMobileBroadband},
    {"", "get_InterfaceID FAILED hr=0x%X, RebootModemByMbimCmd --", Cause,
     "The Mobile Broadband service does not name its interface.", kMobileBroadband},
    {"", "IMbnDeviceServicesManager::GetDeviceServicesContext('%s') failed with: %x, RebootModemByMbimCmd --",
     Cause, "The Mobile Broadband service offers no device services of the modem.", kMobileBroadband},
    {"", "SafeArrayGetLBound on allDeviceServices failed with: %x, RebootModemByMbimCmd --", Cause,
     "The list of the modem's device services cannot be read.", kMobileBroadband},
    {"", "SafeArrayGetUBound on allDeviceServices failed with: %x, RebootModemByMbimCmd --", Cause,
     "The list of the modem's device services cannot be read.", kMobileBroadband},
    {"", "Service Not found", Cause,
     "The modem does not list the device service that takes the reboot command. It may know it all the same.",
     kMobileBroadband},
    {"", "IMbnDeviceServicesContext::GetDeviceService('%s') failed with: %x", Cause,
     "The modem's device service for the reboot command is not handed out.", kMobileBroadband},
    {"", "IMbnDeviceServicesContext::GetDeviceService('%s') succeeded but (pDeviceService) is NULL!", Cause,
     "The modem's device service for the reboot command is not handed out.", kMobileBroadband},
    {"", "IMbnDeviceService::get_IsCommandSessionOpen() failed with: %x, RebootModemByMbimCmd --", Cause,
     "The device service does not tell whether somebody uses it.", kMobileBroadband},
    {"", "Command session is open; cannot proceed, RebootModemByMbimCmd --", Cause,
     "Another program has a command session with the modem's device service.",
     "Close the modem maker's other programs (updaters, connection managers) and ask for the flash again. "
     "The library resets the modem instead."},
    {"", "QueryInterface(IID_IConnectionPointContainer **) failed, RebootModemByMbimCmd --", Cause,
     "The Mobile Broadband service announces no events.", kMobileBroadband},
    {"", "new CMbnSinks failed, RebootModemByMbimCmd --", Cause,
     "There was no memory for the receiver of the Mobile Broadband service's events.", kFreeMemory},
    {"", "g_CMbnSinks->Initilazation() failed", Cause,
     "The receiver of the Mobile Broadband service's events could not be set up.", kFreeMemory},
    {"", "FindConnectionPoint(IID_IMbnDeviceServicesEvents,**) failed", Cause,
     "The Mobile Broadband service announces no events of device services.", kMobileBroadband},
    {"", "Register, Advise(pUnkSink,**) failed", Cause,
     "The Mobile Broadband service does not take the receiver of its events.", kMobileBroadband},
    {"", "IMbnDeviceService::OpenCommandSession() failed with: %x", Cause,
     "The command session with the modem could not be opened.", kMobileBroadband},
    {"", "OpenCommandSession failed with timeOut or other issue", Cause,
     "The Mobile Broadband service did not report the command session as open within 60 s.",
     kMobileBroadband},
    {"", "OpenCommandSession (FAILED(hr))", Cause,
     "The Mobile Broadband service opened the command session late, which counts as refused.",
     kMobileBroadband},
    {"", "No memory for the reboot command's payload", Cause, "There was no memory for the reboot command.",
     kFreeMemory},
    {"", "SafeArrayPutElement failed with: %x", Cause, "The reboot command could not be put together.",
     kFreeMemory},
    {"", "QuerySupportedCommands failed with other issue, waitObject: 0x%x, ErrorCode:0x%x", Cause,
     "The modem did not list the commands that it takes within 60 s.", kMobileBroadband},
    {"", "------- MBIM support Modem Reboot Command ----", Harmless,
     "The modem takes the reboot command. It is written as an error, and is none.", kNothing},
    {"", "IMbnDeviceService::SetCommand() failed with: %x", Cause,
     "The Mobile Broadband service refused the reboot command.", kMobileBroadband},
    {"", "SetCommand timeout or failed with other issue", Cause,
     "The modem did not confirm the reboot command within 90 s.", kMobileBroadband},
    {"", "The attempt was given up: nothing more is asked of the modem", Consequence,
     "The attempt's 130 s were over while it waited for the Mobile Broadband service.", kMobileBroadband},

    // --- Into flash mode: AT port ------------------------------------------------------------------------
    {"ATProcessor", "Can't find COM port", Cause, "The modem's AT port is not there.", kModemDriver},
    {"ATProcessor", "openPort failed", Cause,
     "The modem's AT port could not be opened: another program has it.", kAtPort},
    {"ATProcessor", "writeCmd failed", Consequence, "The reboot command did not get to the AT port.",
     kAtPort},
    {"ATProcessor", "%s comm is not opened", Cause, "The AT port was to be written to, and is not open.",
     kAtPort},
    {"ATProcessor", "%s write at command failed with error 0x%x", Cause, "The AT port takes no bytes.",
     kAtPort},
    {"ATProcessor", "%s write at command success", Harmless,
     "The AT command was sent. It is written as an error, and is none.", kNothing},

    // --- Into flash mode: baseband reset and flash port --------------------------------------------------
    {"CFirmwareDownloader", "RebootModem FAIL.", Consequence,
     "The modem refused the way into flash mode; a baseband reset follows.", kSeeEarlier},
    {"CFirmwareDownloader", "Call BB_RST FAIL. Retry after 5s.", Consequence,
     "The baseband reset failed; the library tries again.", kResetDriver},
    {"CFirmwareDownloader", "Call BB_RST %d times, reached maximum retry times!!!", Consequence,
     "The retries of the job are used up; the modem is not reset any more.", kSeeEarlier},
    {"CUdeIoControl", "TriggerFlashReset--: OpenFlashDevice Failed", Consequence,
     "The driver that resets the modem could not be opened.", kResetDriver},
    {"CUdeIoControl", "TriggerFlashReset--: SendSyncDeviceRequest Failed", Consequence,
     "The driver refused to reset the modem.", kResetDriver},
    {"CUdeIoControl", "Error retrieving device interface list size: %d", Cause,
     "The system does not tell whether the driver that resets the modem is there.", kResetDriver},
    {"CUdeIoControl", "Error - No active device interfaces found", Cause,
     "The driver that resets the modem is not there.", kResetDriver},
    {"CUdeIoControl", "Error allocating memory for device interface list..", Cause,
     "There was no memory to look for the driver that resets the modem.", kFreeMemory},
    {"CUdeIoControl", "Error retrieving device interface list: %d", Cause,
     "The system does not tell where the driver that resets the modem is.", kResetDriver},
    {"CUdeIoControl", "Error: nextInterface is NULL or len is 0 failed", Cause,
     "The driver that resets the modem has just gone away.", kResetDriver},
    {"CUdeIoControl", "CreateFile failed: %d", Cause, "The driver that resets the modem could not be opened.",
     kResetDriver},
    {"CUdeIoControl", "SendSyncDeviceRequest--: DeviceIoControl failed: %d", Cause,
     "The driver refused the request to reset the modem.", kResetDriver},
    {"CUdeIoControl", "SendSyncDeviceRequest--: CreateEventEx failed: %d", Cause,
     "There was no memory for a request to the driver that resets the modem.", kFreeMemory},
    {"CFirmwareDownloader", "CheckFlashPortImplementation CreateThread error: %d, call BB_RST", Cause,
     "The system started no thread for the search of the flash port; the modem is reset instead.",
     kFreeMemory},
    {"CFirmwareDownloader", "CreateSemaphore failed!, call BB_RST", Cause,
     "There was no memory for the search of the flash port; the modem is reset instead.", kFreeMemory},
    {"CFirmwareDownloader", "Timeout in waiting for flash channel", Cause,
     "The modem did not come back as a flash port within 15 s.", kColdStart},
    {"CFirmwareDownloader", "Cannot get flash channel", Consequence,
     "The search of the flash port found none.", kColdStart},
    {"CFirmwareDownloader", "Cannot get flash port, call BB_RST", Consequence,
     "No flash port was found; a baseband reset follows.", kColdStart},
    {"CFirmwareDownloader", "Error retrieving device interface list: %d", Cause,
     "The system does not list its serial ports; the search goes on.", kModemDriver},
    {"CFirmwareDownloader", "Error - No active device interfaces found.", Cause,
     "The PC has no serial port at all at this moment; the search goes on.", kModemDriver},
    {"CFirmwareDownloader", "Error allocating memory for device interface list.", Cause,
     "There was no memory for the list of serial ports; the search goes on.", kFreeMemory},
    {"CFirmwareDownloader", "CM_Locate_DevNode failed: %x", Cause,
     "The system did not look for devices anew; the modem may be found late.", kModemDriver},
    {"CFirmwareDownloader", "CM_Reenumerate_DevNode failed: %x", Cause,
     "The system did not look for devices anew; the modem may be found late.", kModemDriver},

    // --- Opening the flash port and booting the target ---------------------------------------------------
    {"CFirmwareDownloader", "CreateThread InjectBootTargetThread FAIL: 0x%x", Cause,
     "The system started no thread for booting the modem; writing will fail.", kFreeMemory},
    {"CFirmwareDownloader", "InjectBootTargetThread timeout or other issue, return FINIAL_FAIL", Cause,
     "The flashing library did not boot the modem within 10 s.", kColdStart},
    {"CFirmwareDownloader", "InjectBootTargetThread return FINIAL_FAIL", Consequence,
     "The modem was not booted, and may not be reset any more.", kSeeEarlier},
    {"CFirmwareDownloader", "Boot File is NULL!, %s --", Cause, "There is no item to boot the modem with.",
     kNewImages},
    {"CFirmwareDownloader", "ERROR: Open Comm Port failed due to %s, call BB_RST", Cause,
     "The flashing library could not open the flash port; its own reason stands in the record.",
     "Close programs that may use the modem's serial ports. Then ask for the flash again; when it fails the "
     "same way "
     "twice, start the PC cold."},
    {"CFirmwareDownloader", "ERROR: Boot Target failed due to %s, call BB_RST", Cause,
     "The modem did not take the boot file; the flashing library's own reason stands in the record.",
     "Make sure that the image belongs to this modem and copy it again. Then ask for the flash again; when "
     "it fails "
     "the same way twice, start the PC cold."},

    // --- Writing and resetting ---------------------------------------------------------------------------
    {"CFirmwareDownloader", "Could not download file(%s)", Cause,
     "An item of the image could not be written.", kNewImages},
    {"CFirmwareDownloader", "m_DownloadCUSTFileFunc(%d, %s)", Harmless,
     "An item of an unusual kind is written as customisation. It is written as an error, and is none.",
     kNothing},
    {"CFirmwareDownloader", "DownloadFirmwareIntoDevice FAIL, set m_return_result = FirmwareUpdateFailed;",
     Consequence, "Writing failed, or the flashing library announced no progress steps at all.", kSeeEarlier},
    {"CFirmwareDownloader", "ForceTargetReset FAIL, set m_return_result = FirmwareUpdateFailed;", Cause,
     "All is written, but the modem was not reset.", kColdStart},
    {"CFirmwareDownloader", "ERROR: Close CommPort failed due to %s", Cause,
     "The flashing library did not close the flash port behind the attempt; its own reason stands in the "
     "record.",
     "Nothing when the flash succeeded; otherwise start the PC cold and ask for the flash again."},

    // --- The job -----------------------------------------------------------------------------------------
    {"ToolKit::", "CreateThread DownloadFirmwareImplementation FAIL: 0x%x", Cause,
     "The system started no thread for the download; the service counts a failed attempt, the command line "
     "ends.",
     kFreeMemory},
    {"ToolKit::", "Flash TIMEOUT or other issue, goto Flash_FAILED", Cause,
     "The attempt took more than 130 s and was left to itself.",
     "See where its last record stands. Behind \"find port:\" the AT port was refused to this process once: "
     "restart the "
     "service. Otherwise start the PC cold and ask for the flash again."},
    {"ToolKit::", "Flash timeout or other issue, goto Flash_FAILED", Cause,
     "The attempt took more than 130 s and was left to itself.",
     "See where its last record stands. Then start the PC cold and ask for the flash again."},
    {"ToolKit::", "Flash FAILED, goto Flash_FAILED", Consequence, "The attempt failed.", kSeeEarlier},
    {"ToolKit::", "Flash NOT success, goto Flash_FAILED", Consequence, "The attempt failed.", kSeeEarlier},
    {"ToolKit::", "Flash still failed after reach maximum retry value", Consequence,
     "The last attempt that the job may make has failed.", kSeeEarlier},
    {"ToolKit::", "Flash FAIL, retry again, g_retry_times: %d(Max %d)", Consequence,
     "The attempt failed and is repeated.", kNothing},
    {"ToolKit::", "CreateThread WaitForMBIMRearrivedImplementation error: %x", Cause,
     "The system started no thread to wait for the modem's return.", kFreeMemory},
    {"ToolKit::", "Wait Modem re-arrival timeout or other issue, Let's check it last time", Cause,
     "All is written, but the modem was not back within 23 s; the service looks once more.", kColdStart},
    {"ToolKit::", "Wait Modem re-arrival timeout or other issue, call BB_RST", Cause,
     "All is written, but the modem was not back within 23 s; it is reset.", kColdStart},
    {"ToolKit::", "Wait Modem re-arrival timeout or other issue, retry", Cause,
     "All is written, but the modem was not back within 23 s.", kColdStart},
    {"ToolKit::", "MBIM device not arrival, retry again, %d(Max %d)", Consequence,
     "The modem is not back yet; it is reset and waited for again.", kNothing},
    {"ToolKit::", "Flash FAIL when reach the maximum retry time.", Consequence,
     "The modem did not come back as often as the job may wait for it.", kColdStart},
    {"ToolKit::", "Flash still failed after reach maximum retry value.", Consequence,
     "The modem did not come back as often as the job may wait for it.", kColdStart},
    {"ToolKit::", "Flash OK, but wait Modem re-arrived failed", Consequence,
     "All is written, but the modem did not come back.", kColdStart},

    // --- XML documents of hosts --------------------------------------------------------------------------
    {"CConfigParser", "Could not Open %S", Cause, "An XML document could not be read.", kXmlDocument},
    {"CConfigParser", "Could not read the elements of %S: %x", Cause, "An XML document could not be read.",
     kXmlDocument},
    {"CConfigParser", "Could not load %s", Cause, "An XML document could not be read.", kXmlDocument},
    {"CConfigParser", "Failed to format the document %S", Cause,
     "An XML document could not be laid out anew.", kXmlDocument},
    {"CConfigParser", "Could not find child element", Cause, "The laid out document has no first line.",
     kXmlDocument},
    {"CConfigParser", "Could not map child element", Cause, "The first line of the document cannot be read.",
     kXmlDocument},
    {"CConfigParser", "Could not find encoding element", Cause, "The document does not name its encoding.",
     kXmlDocument},
    {"CConfigParser", "Could not set encoding element to UTF-8", Cause,
     "The document's encoding could not be set.", kXmlDocument},
    {"CConfigParser", "Could not save %S", Cause, "An XML document could not be written.", kXmlDocument},
    {"", "CoCreateInstance(IID_IXMLDOMDocument) failed with %x:", Cause, "Windows offers no XML documents.",
     kMsxml},
    {"", "IXMLDOMDocument::load(%s) failed with: %x", Cause, "An XML document could not be read.",
     kXmlDocument},
    {"", "IXMLDOMDocument::save(%s) failed with: %d", Cause, "An XML document could not be written.",
     kXmlDocument},
    {"", "IXMLDOMDocument::get_documentElement(%s) failed with: %x", Cause, "An XML document has no root.",
     kXmlDocument},
    {"", "IXMLDOMElement::get_childNodes(%s) failed with: %x", Cause,
     "An XML document's elements cannot be listed.", kXmlDocument},
    {"", "IXMLDOMNodeList::get_length() failed with: %x", Cause, "A list of elements cannot be counted.",
     kMsxml},
    {"", "IXMLDOMNode::get_childNodes() failed: %x", Cause, "An element's children cannot be listed.",
     kMsxml},
    {"", "IXMLDOMNodeList::get_item(%d) failed with: %x", Cause, "An element of a list is not handed out.",
     kMsxml},
    {"", "IXMLDOMNode::get_nodeName() failed with: %x", Cause, "An element does not tell its name.", kMsxml},
    {"", "IXMLDOMNode::get_text() failed with: %x", Cause, "An element does not tell its text.", kMsxml},
    {"", "IXMLDOMNode::get_nodeType() failed with: %x", Cause, "A node does not tell its kind.", kMsxml},
    {"", "IXMLDOMNode::get_attributes() failed with: %x", Cause, "An element's attributes cannot be listed.",
     kMsxml},
    {"", "IXMLDOMNamedNodeMap::getNamedItem(%s) failed with: %x", Cause, "An attribute cannot be looked up.",
     kMsxml},
    {"", "IXMLDOMNode::get_nodeValue() failed with: %x", Cause, "An attribute does not tell its value.",
     kMsxml},
    {"", "IXMLDOMNodeList::nextNode() failed with: %x", Cause, "A list of elements breaks off.", kMsxml},
    {"", "IXMLDOMDocument::createProcessingInstruction() failed with: %x", Cause,
     "The first line of a document could not be made.", kMsxml},
    {"", "IXMLDOMDocument::appendChild() failed with: %x", Cause,
     "The first line of a document could not be put in.", kMsxml},
    {"", "IXMLDOMDocument::createNode(%s) failed with: %x", Cause,
     "An element could not be made; its name may be none that XML allows.", kXmlDocument},
    {"", "IXMLDOMDocument::appendChild(%s) failed with: %x", Cause,
     "An element could not be put in; a document has only one root.", kXmlDocument},
    {"", "IXMLDOMNode::QueryInterface(IID_IXMLDOMElement) failed with: %x", Cause, "The root is no element.",
     kMsxml},
    {"", "IXMLDOMDocument::createAttribute(%s) failed with: %x", Cause,
     "An attribute could not be made; its name may be none that XML allows.", kXmlDocument},
    {"", "IXMLDOMAttribute::put_value(%s) failed with: %x", Cause, "An attribute took no value.", kMsxml},
    {"", "IXMLDOMNamedNodeMap::setNamedItem(%s) failed with: %x", Cause, "An attribute could not be put in.",
     kMsxml},
    {"", "IXMLDOMNode::put_nodeTypedValue(%s) failed with: %x", Cause, "An element took no value.", kMsxml},
    {"", "IXMLDOMNode::put_text(%s) failed with: %x", Cause, "An element took no text.", kMsxml},
    {"", "IXMLDOMDocument::%s() failed with: %x", Cause, "Windows' XML documents cannot be set up.", kMsxml},
};

const ResultAdvice kFlashResults[] = {
    {0, "idle: no flash was asked for since the service began, or its images are being looked for", kNothing},
    {1, "flashing: an attempt runs, or the host ended in the middle of it",
     "Wait. When nothing changes for longer than Time_Out says, start the service again: it recovers the "
     "modem and does "
     "the request that still stands."},
    {2, "retrying: an attempt failed, the next one follows",
     "Wait. When nothing changes for longer than Time_Out says, start the service again."},
    {3, "failed: no images were found, or the last attempt failed", kColdStart},
    {4, "succeeded: the images are written and the modem is back", kNothing},
};

const ResultAdvice kAttemptResults[] = {
    {0, "not updated: the images or the flashing library could not be used; the modem was not touched",
     kFlashAgain},
    {1, "updated: all items are written and the modem was reset", kNothing},
    {5, "update failed: the modem was not booted, an item was not written, or the modem was not reset",
     kColdStart},
};

bool IsBlank(char letter) {
  return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\n';
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

/// What the front of a format stands for: letters as they are, or one conversion.
struct FormatPiece {
  std::string_view letters;
  /// The conversion's last letter; none when the piece is letters.
  char conversion = '\0';
};

FormatPiece TakePiece(std::string_view& format) {
  if (format.front() != '%') {
    const std::string_view letters = format.substr(0, format.find('%'));
    format.remove_prefix(letters.size());
    return {.letters = letters};
  }
  const std::size_t end = format.find_first_not_of("0123456789l", 1);
  const char conversion = end == std::string_view::npos ? '%' : format[end];
  format.remove_prefix(end == std::string_view::npos ? format.size() : end + 1);
  return {.letters = {}, .conversion = conversion};
}

/// How much of a text's front is a number as the conversion writes it; blanks in front of it fill a width.
std::size_t LengthOfNumber(char conversion, std::string_view text) {
  const bool decimal = conversion == 'd';
  std::size_t digits = text.find_first_not_of(' ');
  if (digits == std::string_view::npos) return 0;
  if (decimal && text[digits] == '-') ++digits;
  const std::size_t end = text.find_first_not_of(decimal ? "0123456789" : "0123456789abcdefABCDEF", digits);
  const std::size_t length = end == std::string_view::npos ? text.size() : end;
  return length == digits ? 0 : length;
}

/// Whether the rest of a text is what the rest of a format makes.
bool Matches(std::string_view format, std::string_view text) {
  if (format.empty()) return text.empty();
  const FormatPiece piece = TakePiece(format);
  if (piece.conversion == '\0') {
    return text.starts_with(piece.letters) && Matches(format, text.substr(piece.letters.size()));
  }
  if (piece.conversion == 's' || piece.conversion == 'S') {
    // What ends with a text is matched by any; a long record is not gone through letter by letter for it.
    if (format.empty()) return true;
    for (std::size_t length = 0; length <= text.size(); ++length) {
      if (Matches(format, text.substr(length))) return true;
    }
    return false;
  }
  const std::size_t length = LengthOfNumber(piece.conversion, text);
  return length > 0 && Matches(format, text.substr(length));
}

}  // namespace

const char* NameOf(TroubleKind kind) {
  switch (kind) {
    case Cause:
      return "cause";
    case Consequence:
      return "consequence";
    case Harmless:
      break;
  }
  return "harmless";
}

std::span<const Trouble> AllTroubles() {
  return kTroubles;
}

const Trouble* FindTrouble(std::string_view function, std::string_view message) {
  const auto found = std::ranges::find_if(kTroubles, [&](const Trouble& trouble) {
    return function.starts_with(trouble.function) && MatchesFormat(trouble.format, message);
  });
  return found == std::end(kTroubles) ? nullptr : &*found;
}

std::span<const ResultAdvice> FlashResultAdvice() {
  return kFlashResults;
}

std::span<const ResultAdvice> AttemptResultAdvice() {
  return kAttemptResults;
}

const ResultAdvice* FindResultAdvice(std::span<const ResultAdvice> results, int value) {
  const auto found = std::ranges::find(results, value, &ResultAdvice::value);
  return found == results.end() ? nullptr : &*found;
}

bool MatchesFormat(std::string_view format, std::string_view text) {
  return Matches(format, Trimmed(text));
}

}  // namespace hosts
