@rem Runs detect.ps1 and, when that says that this PC is to be flashed, remediate.ps1: for whatever starts one program
@rem and knows no detection, such as a scheduled task. Run it as the system or as an administrator.
@rem
@rem   flash_once.cmd [-Firmware FOLDER] [-Results FOLDER] [-MinBattery PERCENT] [-TimeoutSeconds SECONDS]
@rem
@rem They are given to remediate.ps1. What both scripts know, -Package and -Programs, is changed in them.
@rem
@rem Exit status: 0 flashed, or there was nothing to do; otherwise that of remediate.ps1.
@echo off
setlocal
set "folder=System32"
rem A 32-bit agent starts this in a 32-bit shell, which finds the 64-bit PowerShell under this name alone.
if exist "%SystemRoot%\Sysnative\WindowsPowerShell" set "folder=Sysnative"
set "shell=%SystemRoot%\%folder%\WindowsPowerShell\v1.0\powershell.exe"

"%shell%" -NoProfile -NonInteractive -ExecutionPolicy Bypass -File "%~dp0detect.ps1"
if not "%errorlevel%" == "1" exit /b %errorlevel%
"%shell%" -NoProfile -NonInteractive -ExecutionPolicy Bypass -File "%~dp0remediate.ps1" %*
exit /b %errorlevel%
