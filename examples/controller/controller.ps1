# The smallest correct controlling program: asks the flash service for one flash and waits for its end.
#
#   .\controller.ps1 -Key 'SOFTWARE\Quenta\FlashService' [-Seconds 900]     (under HKEY_LOCAL_MACHINE)
#
# The images lie in the service's folder already. Run as an administrator, in the 64-bit PowerShell. Exit
# status: 0 flashed, 1 failed, 3 the time limit passed (is the service running?), 4 the registry refused.
param(
    [Parameter(Mandatory)] [string] $Key,
    [int] $Seconds = 900
)
$ErrorActionPreference = 'Stop'
trap { Write-Warning $_; exit 4 }

$path = "HKLM:\$Key"
if (-not (Test-Path $path)) { New-Item -Path $path -Force | Out-Null }

function Read-Value([string] $name) {
    $value = (Get-ItemProperty -Path $path -Name $name -ErrorAction SilentlyContinue).$name
    if ($null -eq $value) { 0 } else { $value }
}

# Subscribed before the request is made, so that no change is missed. The system announces changes of the
# key; a value of it may have changed more than once by the time this looks.
$wmiKey = $Key.Replace('\', '\\')
$query = "SELECT * FROM RegistryKeyChangeEvent WHERE Hive='HKEY_LOCAL_MACHINE' AND KeyPath='$wmiKey'"
Register-CimIndicationEvent -Namespace root/default -Query $query -SourceIdentifier FlashChanged

try {
    Set-ItemProperty -Path $path -Name Fls_Ready -Value 1 -Type DWord

    $end = (Get-Date).AddSeconds($Seconds)
    # The service has dealt with the request when it took the flag back; the result was written before.
    while ((Read-Value Fls_Ready) -ne 0) {
        Write-Output ("Flash_Result {0}, {1} %" -f (Read-Value Flash_Result), (Read-Value Flash_Progress))
        $left = [int] ($end - (Get-Date)).TotalSeconds
        if ($left -le 0) {
            if ((Read-Value Flash_Result) -notin 1, 2) {
                # Nobody took the request: take it back, so that no later service flashes unasked.
                Set-ItemProperty -Path $path -Name Fls_Ready -Value 0 -Type DWord
            }
            Write-Error -ErrorAction Continue 'No end in time: is the service running?'
            exit 3
        }
        Wait-Event -SourceIdentifier FlashChanged -Timeout $left | Remove-Event
    }
}
finally {
    Unregister-Event -SourceIdentifier FlashChanged
    Get-Event -SourceIdentifier FlashChanged -ErrorAction SilentlyContinue | Remove-Event
}

$result = Read-Value Flash_Result
Write-Output "Flash_Result $result"
if ($result -eq 4) { exit 0 } else { exit 1 }
