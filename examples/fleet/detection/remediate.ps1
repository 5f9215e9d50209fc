# Flashes this PC: the counterpart of detect.ps1. Run it as the system or as an administrator.
#
#   .\remediate.ps1 [-Package FOLDER] [-Programs FOLDER] [-Firmware FOLDER] [-Results FOLDER] [-MinBattery PERCENT]
#                   [-TimeoutSeconds SECONDS]
#
# The package holds the images and their SHA256SUMS; Firmware is the folder that [ModemAndNVMFirmwareFolder] of
# CorvelConfig.ini names: it is emptied of images first. corvel_cmdline copies those of the package there, and takes them
# back when it comes to no flash. What it said is kept as NAME-OF-PC.json in Results, which may be a share.
# Exit status: 0 flashed, otherwise that of corvel_cmdline or corvel_service, or 1.

#Requires -Version 5.1
#Requires -RunAsAdministrator
param(
    [string] $Package = "$PSScriptRoot\images",
    [string] $Programs = "$env:ProgramFiles\Corvel\Toolkit\bin",
    [string] $Firmware = "$env:ProgramData\Quenta\Firmware",
    [string] $Results = "$env:ProgramData\Corvel\Results",
    [ValidateRange(1, 100)] [int] $MinBattery = 50,
    # Longer than any flash takes: four attempts with all their pauses.
    [ValidateRange(1, 2592000)] [int] $TimeoutSeconds = 1200
)
$ErrorActionPreference = 'Stop'
trap { Write-Output "Broken off: $_"; exit 1 }

# A 32-bit PowerShell would leave its mark where detect.ps1 does not look.
if (-not [Environment]::Is64BitProcess) { throw 'This is a 32-bit PowerShell: start the 64-bit one.' }

# The programs write UTF-8. Without a console there is nothing to set; then letters beyond ASCII may be others.
try { [Console]::OutputEncoding = New-Object Text.UTF8Encoding $false } catch { Write-Verbose "No console: $_" }

# What a program says on standard error is no error of this script, which would end there and the program with it.
function Invoke-Program([string] $Name, [string[]] $Words) {
    $ErrorActionPreference = 'Continue'
    & "$Programs\$Name.exe" $Words
}

$state = 'HKLM:\SOFTWARE\Corvel\Fleet'
function Set-State([string] $Name, $Value, [string] $Type) {
    # With -Force it would empty a key that is there.
    if (-not (Test-Path $state)) { New-Item -Path $state -Force | Out-Null }
    Set-ItemProperty -Path $state -Name $Name -Value $Value -Type $Type
}

$digest = (Get-FileHash "$Package\SHA256SUMS" -Algorithm SHA256).Hash
$values = Get-ItemProperty -Path $state -ErrorAction SilentlyContinue
$failures = if ($values.Failed -eq $digest) { [int] $values.Failures } else { 0 }
New-Item -ItemType Directory -Path $Firmware, $Results -Force | Out-Null

# The service would take the images itself, and two hosts would drive one modem. Status 3: a flash is running.
$said = Invoke-Program corvel_service @('stop')
if ($LASTEXITCODE -ne 0) { Write-Output $said; exit $LASTEXITCODE }
# A PC may have no service, or one that somebody has stopped: only one that ran is started again.
$isToStart = $said -contains 'Stopped.'
$started = 0
try {
    Remove-Item "$Firmware\*.fls" -Force
    $said = Invoke-Program corvel_cmdline @('flash', '--json', '--quiet', '--images', "$Package",
        '--expect', "$Package\SHA256SUMS", '--min-battery', "$MinBattery", '--timeout', "$TimeoutSeconds")
    $status = $LASTEXITCODE
    if ($status -eq 0) { Set-State Flashed $digest String; $failures = 0 }
    # What was cut short counts, too; what was not begun is tried again.
    if ($status -in 1, 5) { $failures++ }
    Set-State Failed $digest String
    Set-State Failures $failures DWord
    Set-Content -Path "$Results\$env:COMPUTERNAME.json" -Value $said -Encoding UTF8
} finally {
    if ($isToStart) {
        Invoke-Program corvel_service @('start')
        $started = $LASTEXITCODE
    }
}
Write-Output "corvel_cmdline ended with $status, the start of the service with $started."
if ($status -eq 0) { exit $started } else { exit $status }
