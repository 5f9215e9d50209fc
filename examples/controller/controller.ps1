# The smallest correct controlling program: asks the flash service for one flash and waits for its end.
#
#   .\controller.ps1 -Key 'SOFTWARE\Quenta\FlashService' [-Seconds 900]     (under HKEY_LOCAL_MACHINE)
#
# The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
# 3 no end (no service took the request, it fell silent, or the time limit passed), 4 the registry refused.
# Without administrator rights PowerShell itself says so, and ends with 1 when it was started with -File.

#Requires -Version 5.1
#Requires -RunAsAdministrator
param(
    [Parameter(Mandatory)] [string] $Key,
    [string] $Seconds = '900'
)
$ErrorActionPreference = 'Stop'
trap { Write-Warning $_; exit 4 }

# A 32-bit PowerShell sees other keys than the service does.
if (-not [Environment]::Is64BitProcess) {
    Write-Warning 'This is a 32-bit PowerShell: start the 64-bit one.'
    exit 2
}
if ($Seconds -notmatch '^[0-9]{1,7}$' -or [int] $Seconds -lt 1 -or [int] $Seconds -gt 1000000) {
    Write-Warning '-Seconds takes a whole number from 1 to 1000000.'
    exit 2
}

$longestToTake = 10      # seconds; a living service takes a request at once
$usualTimeOut = 153000   # milliseconds; what the service itself writes

$path = "HKLM:\$Key"
if (-not (Test-Path $path)) { New-Item -Path $path -Force | Out-Null }

function Read-Value([string] $name) {
    $value = (Get-ItemProperty -Path $path -Name $name -ErrorAction SilentlyContinue).$name
    if ($null -eq $value) { 0 } else { $value }
}
function Read-State { '{0} {1} {2}' -f (Read-Value Flash_Result), (Read-Value Flash_Progress), (Read-Value Flash_OnGoing) }
function Test-Flashing { (Read-Value Flash_Result) -in 1, 2 }

# Subscribed before the request is made, so that no change is missed. The system announces changes of the
# key; a value of it may have changed more than once by the time this looks.
$wmiKey = $Key.Replace('\', '\\')
$query = "SELECT * FROM RegistryKeyChangeEvent WHERE Hive='HKEY_LOCAL_MACHINE' AND KeyPath='$wmiKey'"
Register-CimIndicationEvent -Namespace root/default -Query $query -SourceIdentifier FlashChanged

try {
    # What an earlier service left is no sign of life: only what changes after the request is.
    $before = Read-State
    Set-ItemProperty -Path $path -Name Fls_Ready -Value 1 -Type DWord

    $taken = $false
    $now = Get-Date
    $end = $now.AddSeconds([int] $Seconds)
    $lastChange = $now
    # The service has dealt with the request when it took the flag back; the result was written before.
    while ((Read-Value Fls_Ready) -ne 0) {
        Write-Output ("Flash_Result {0}, {1} %" -f (Read-Value Flash_Result), (Read-Value Flash_Progress))
        $taken = $taken -or (Read-State) -ne $before
        $timeOut = Read-Value Time_Out
        if ($timeOut -le 0) { $timeOut = $usualTimeOut }
        $silence = if ($taken) { $timeOut / 1000 } else { $longestToTake }
        $silenceEnds = $lastChange.AddSeconds($silence)
        $next = if ($silenceEnds -lt $end) { $silenceEnds } else { $end }

        if ((Get-Date) -ge $next) {
            $silent = $silenceEnds -lt $end
            # Nobody serves the request: taken back, so that no later service flashes unasked. A flash that has
            # begun is left: if its service died, the next one recovers the modem because the request stands.
            if (-not $taken -or ($silent -and -not (Test-Flashing))) {
                Set-ItemProperty -Path $path -Name Fls_Ready -Value 0 -Type DWord
            }
            $why = if (-not $taken) { 'Nobody took the request: is the service running?' }
            elseif ($silent) { 'The service fell silent: it has died.' }
            else { 'The time limit passed; the flash goes on.' }
            Write-Warning $why
            exit 3
        }
        $left = [int] [Math]::Ceiling(($next - (Get-Date)).TotalSeconds)
        $change = Wait-Event -SourceIdentifier FlashChanged -Timeout ([Math]::Max($left, 1))
        if ($change) {
            $change | Remove-Event
            if ($taken -or (Read-State) -ne $before) { $lastChange = Get-Date }
        }
    }
}
finally {
    Unregister-Event -SourceIdentifier FlashChanged
    Get-Event -SourceIdentifier FlashChanged -ErrorAction SilentlyContinue | Remove-Event
}

$result = Read-Value Flash_Result
Write-Output "Flash_Result $result"
if ($result -eq 4) { exit 0 } else { exit 1 }
