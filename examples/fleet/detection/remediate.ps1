# Flashes this PC: the counterpart of detect.ps1. Run it as the system or as an administrator.
#
#   .\remediate.ps1 [-Package FOLDER] [-Programs FOLDER] [-Firmware FOLDER] [-Results FOLDER] [-MinBattery PERCENT]
#
# The package holds the images and their SHA256SUMS; Firmware is the folder that [ModemAndNVMFirmwareFolder] of
# CorvelConfig.ini names. What corvel_cmdline said is kept as NAME-OF-PC.json in Results, which may be a share.
# Exit status: 0 flashed, otherwise that of corvel_cmdline or corvel_service, or 1.

#Requires -Version 5.1
#Requires -RunAsAdministrator
param(
    [string] $Package = "$PSScriptRoot\images",
    [string] $Programs = "$env:ProgramFiles\Corvel\Toolkit\bin",
    [string] $Firmware = "$env:ProgramData\Quenta\Firmware",
    [string] $Results = "$env:ProgramData\Corvel\Results",
    [ValidateRange(1, 100)] [int] $MinBattery = 50
)
$ErrorActionPreference = 'Stop'
trap { Write-Output "Not flashed: $_"; exit 1 }

# A 32-bit PowerShell would leave its mark where detect.ps1 does not look.
if (-not [Environment]::Is64BitProcess) { throw 'This is a 32-bit PowerShell: start the 64-bit one.' }

$state = 'HKLM:\SOFTWARE\Corvel\Fleet'
$digest = (Get-FileHash "$Package\SHA256SUMS" -Algorithm SHA256).Hash

# The service would take the images itself, and two hosts would drive one modem. Status 3: a flash is running.
& "$Programs\corvel_service.exe" stop
if ($LASTEXITCODE -ne 0) { exit $LASTEXITCODE }
try {
    New-Item -ItemType Directory -Path $Firmware, $Results -Force | Out-Null
    Remove-Item "$Firmware\*.fls"
    Copy-Item "$Package\*" $Firmware
    $said = & "$Programs\corvel_cmdline.exe" flash --json --quiet --expect "$Firmware\SHA256SUMS" --min-battery $MinBattery
    $status = $LASTEXITCODE
    Set-Content -Path "$Results\$env:COMPUTERNAME.json" -Value $said -Encoding UTF8
    if ($status -eq 0) {
        # With -Force it would empty a key that is there.
        if (-not (Test-Path $state)) { New-Item -Path $state -Force | Out-Null }
        Set-ItemProperty -Path $state -Name Flashed -Value $digest
    }
} finally {
    & "$Programs\corvel_service.exe" start
}
Write-Output "corvel_cmdline ended with $status."
exit $status
