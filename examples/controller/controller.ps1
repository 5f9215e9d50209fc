# The smallest correct controlling program: asks the flash service for one flash and waits for its end.
#
#   .\controller.ps1 -Key 'HKLM\SOFTWARE\Quenta\FlashService' [-Seconds 900]
#
# The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
# 3 no end (no service took the request, it fell silent, the time limit passed, or Ctrl+C), 4 the registry refused.
# Without administrator rights PowerShell itself says so, and ends with 1 when it was started with -File.

#Requires -Version 5.1
#Requires -RunAsAdministrator
param([Parameter(Mandatory)] [string] $Key, [string] $Seconds = '900')
$ErrorActionPreference = 'Stop'
trap { Write-Warning "The registry refused: $_"; exit 4 }

# A 32-bit PowerShell sees other keys than the service does.
if (-not [Environment]::Is64BitProcess) { Write-Warning 'This is a 32-bit PowerShell: start the 64-bit one.'; exit 2 }
if ($Key -notmatch '^HKLM\\.' -or $Seconds -notmatch '^[0-9]{1,7}$' -or [int] $Seconds -lt 1 -or [int] $Seconds -gt 1000000) {
    Write-Warning 'usage: controller.ps1 -Key HKLM\KEY [-Seconds SECONDS], SECONDS: 1 to 1000000'
    exit 2
}
# In milliseconds: a living service takes a request at once; 153000 is what it writes itself.
$longestToTake = 10000; $usualTimeOut = 153000; $limit = [long] $Seconds * 1000

$path = $Key -replace '^HKLM', 'HKLM:'
if (-not (Test-Path $path)) { New-Item -Path $path -Force | Out-Null }
function Read-Value([string] $name) { [int] (Get-ItemProperty -Path $path -Name $name -ErrorAction SilentlyContinue).$name }
function Read-State { '{0} {1} {2}' -f (Read-Value Flash_Result), (Read-Value Flash_Progress), (Read-Value Flash_OnGoing) }
function Set-Flag([int] $value) { Set-ItemProperty -Path $path -Name Fls_Ready -Value $value -Type DWord }

# Subscribed before the request is made, so that no change is missed. The system announces changes of the
# key; a value of it may have changed more than once by the time this looks.
$wmiPath = $Key.Substring(5).Replace('\', '\\')
$query = "SELECT * FROM RegistryKeyChangeEvent WHERE Hive='HKEY_LOCAL_MACHINE' AND KeyPath='$wmiPath'"
Register-CimIndicationEvent -Namespace root/default -Query $query -SourceIdentifier FlashChanged
$taken = $true
try {
    $before = Read-Value Flash_Result; $stateBefore = Read-State
    $taken = $false
    Set-Flag 1
    $clock = [Diagnostics.Stopwatch]::StartNew()
    $lastChange = 0; $changed = $false
    while ((Read-Value Fls_Ready) -eq 1) {
        $result = Read-Value Flash_Result; $timeOut = Read-Value Time_Out
        Write-Output ("Flash_Result {0}, {1} %" -f $result, (Read-Value Flash_Progress))
        $changed = $changed -or $result -ne $before
        # The request itself is announced too: only a value that differs tells that somebody took it.
        $taken = $taken -or (Read-State) -ne $stateBefore
        $silenceEnds = $lastChange + $(if (-not $taken) { $longestToTake } elseif ($timeOut -gt 0) { $timeOut } else { $usualTimeOut })
        $left = [Math]::Min($silenceEnds, $limit) - $clock.ElapsedMilliseconds
        if ($left -gt 0) {
            $change = Wait-Event -SourceIdentifier FlashChanged -Timeout ([int] [Math]::Ceiling($left / 1000))
            if ($change) { $change | Remove-Event }
            if ($change -and ($taken -or (Read-State) -ne $stateBefore)) { $lastChange = $clock.ElapsedMilliseconds }
            continue
        }
        # Nobody serves the request: taken back, so that no later service flashes unasked. A flash that has
        # begun is left: if its service died, the next one recovers the modem because the request stands.
        $silent = $silenceEnds -le $limit
        if (-not $taken -or ($silent -and $result -notin 1, 2)) { Set-Flag 0 }
        Write-Warning $(if (-not $taken) { 'Nobody took the request: is the service running?' }
            elseif ($silent) { 'The service fell silent: it has died.' } else { 'The time limit passed; the flash goes on.' })
        exit 3
    }
}
finally {
    # After Ctrl+C, too: a request that nobody took is taken back.
    if (-not $taken -and (Read-Value Fls_Ready) -eq 1) { Set-Flag 0 }
    Unregister-Event -SourceIdentifier FlashChanged
    Get-Event -SourceIdentifier FlashChanged -ErrorAction SilentlyContinue | Remove-Event
}
# A result from before the request says nothing of it.
$result = if ($changed -or (Read-Value Flash_Result) -ne $before) { Read-Value Flash_Result } else { -1 }
Write-Output $(if ($result -eq 4) { 'Flash_Result 4: flashed' } elseif ($result -eq 3) { "Flash_Result 3: failed: the service's log says why" }
    else { 'not flashed: the request was taken back' })
if ($result -eq 4) { exit 0 } else { exit 1 }
