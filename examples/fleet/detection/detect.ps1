# Whether this PC is to be flashed: for systems that run a detection script and, when it ends with 1, a remediation.
#
#   .\detect.ps1 [-Package FOLDER] [-Programs FOLDER]
#
# The package holds the images and their SHA256SUMS. The PC is to be flashed when the last remediation that succeeded had
# another SHA256SUMS, unless two with this one have failed. Exit status: 0 nothing is to be done, 1 flash it.

#Requires -Version 5.1
param(
    [string] $Package = "$PSScriptRoot\images",
    [string] $Programs = "$env:ProgramFiles\Corvel\Toolkit\bin"
)
$ErrorActionPreference = 'Stop'
# A PC that nobody can tell about is not flashed; the text says why.
trap { Write-Output "Not detected: $_"; exit 0 }

# A 32-bit PowerShell has another folder for programs, and does not see what remediate.ps1 writes.
if (-not [Environment]::Is64BitProcess) { throw 'This is a 32-bit PowerShell: start the 64-bit one.' }

$state = 'HKLM:\SOFTWARE\Corvel\Fleet'
$values = Get-ItemProperty -Path $state -ErrorAction SilentlyContinue

# Stops a wave: set by the management system, or by hand.
if ($values.Hold -eq 1) { Write-Output 'On hold.'; exit 0 }
if (-not (Test-Path "$Programs\corvel_cmdline.exe")) { Write-Output "The programs are not in $Programs."; exit 0 }

$wanted = (Get-FileHash "$Package\SHA256SUMS" -Algorithm SHA256).Hash
if ($values.Flashed -eq $wanted) { Write-Output 'Flashed already.'; exit 0 }
if ($values.Failed -eq $wanted -and $values.Failures -ge 2) {
    Write-Output 'Failed twice: look at the debug log and start the PC cold; then delete the value Failures.'
    exit 0
}
Write-Output 'To be flashed.'
exit 1
