# The smallest correct controlling program: asks the flash service for one flash and waits for its end.
#
#   .\controller.ps1 -Key 'HKLM\SOFTWARE\Quenta\FlashService' [-Seconds 900]
#
# The images lie in the service's folder already. Exit status: 0 flashed, 1 failed, 2 wrong usage,
# 3 no end (no service took the request, it fell silent, or the time limit passed), 4 the registry refused.
# Needs key_watch.cs beside it: PowerShell itself cannot wait for a change of a key.
# Compared with the ones in C++ and C#, word for word and step by step; not yet run.

#Requires -Version 5.1
param([string] $Key, [string] $Seconds = '900')
$ErrorActionPreference = 'Stop'
# In milliseconds: a living service takes a request at once; 153000 is what it writes itself.
$longestToTake = 10000; $usualTimeOut = 153000
$hives = @{ HKLM = 'LocalMachine'; HKCU = 'CurrentUser'; HKU = 'Users' }

function Write-Problem([string] $text) { [Console]::Error.WriteLine($text) }
function Read-Value([string] $name) { $value = $registry.GetValue($name); if ($value -is [int]) { [long] $value -band [long] [uint32]::MaxValue } else { [long] 0 } }
function Set-Flag([int] $value) { $registry.SetValue('Fls_Ready', $value, 'DWord') }
function Undo-Request { if ((Read-Value Fls_Ready) -eq 1) { Set-Flag 0 } }

$root, $path = $Key -split '\\', 2
if (@('HKLM', 'HKCU', 'HKU') -cnotcontains $root -or -not $path -or $args.Count -gt 0 -or
    $Seconds -notmatch '^[0-9]{1,7}\z' -or [long] $Seconds -lt 1 -or [long] $Seconds -gt 1000000) {
    Write-Problem "usage: controller.ps1 -Key HKLM\KEY [-Seconds SECONDS]`nSECONDS: 1 to 1000000"
    exit 2
}
$needed = Join-Path $PSScriptRoot 'key_watch.cs'
if (-not (Test-Path $needed)) {
    Write-Problem "$needed is missing."
    exit 2
}
$asked = $false; $taken = $false; $changed = $false
try {
    if (-not ('KeyWatch' -as [type])) { Add-Type -Path $needed }
    # The 64-bit view, where the service looks, also in a PowerShell of 32 bits.
    $registry = [Microsoft.Win32.RegistryKey]::OpenBaseKey($hives[$root], 'Registry64').CreateSubKey($path)
    $watch = New-Object KeyWatch $registry
    $before = Read-Value Flash_Result
    $asked = $true
    Set-Flag 1
    $lastChange = [KeyWatch]::AwakeMs(); $limitEnds = $lastChange + 1000 * [long] $Seconds
    while ($true) {
        $watch.Arm()  # first, then look, then wait: a change between the look and the wait ends the wait
        $ready = Read-Value Fls_Ready; $result = Read-Value Flash_Result; $timeOut = Read-Value Time_Out
        $changed = $changed -or $result -ne $before
        Write-Output ('Flash_Result {0}, {1} %' -f $result, (Read-Value Flash_Progress))
        if ($ready -ne 1) { break }
        $silenceEnds = $lastChange + $(if (-not $taken) { $longestToTake } elseif ($timeOut -gt 0) { $timeOut } else { $usualTimeOut })
        $ends = [Math]::Min($silenceEnds, $limitEnds)
        # In pieces, because PowerShell hears Ctrl+C between them alone.
        do { $isChange = $watch.Wait([Math]::Min($ends - [KeyWatch]::AwakeMs(), [long] 200)) } until ($isChange -or [KeyWatch]::AwakeMs() -ge $ends)
        if ($isChange) {
            $taken = $true  # only a change behind the request tells that somebody took it
            $lastChange = [KeyWatch]::AwakeMs()
            continue
        }
        $silent = $silenceEnds -le $limitEnds; $flashing = @(1, 2) -contains (Read-Value Flash_Result)
        # Nobody serves the request: taken back, so that no later service flashes unasked. A flash that has
        # begun is left: if its service died, the next one recovers the modem because the request stands.
        if (-not $taken -or ($silent -and -not $flashing)) { Undo-Request }
        Write-Problem $(if (-not $taken) { 'Nobody took the request: is the service running?' }
            elseif ($silent) { 'The service fell silent: it has died.' } else { 'The time limit passed; the flash goes on.' })
        $asked = $false
        exit 3
    }
    $asked = $false
}
catch {
    $asked = $false
    Write-Problem "The registry refused: run as an administrator. $_"
    exit 4
}
finally {
    if ($asked) {
        if (-not $taken) { Undo-Request }
        Write-Problem 'Interrupted; a flash that has begun goes on.'
    }
}
# A result from before the request says nothing of it.
if (-not $changed) { $result = -1 }
Write-Output $(if ($result -eq 4) { 'Flash_Result 4: flashed' } elseif ($result -eq 3) { "Flash_Result 3: failed: the service's log says why" }
    else { 'not flashed: the request was taken back' })
if ($result -eq 4) { exit 0 } else { exit 1 }
