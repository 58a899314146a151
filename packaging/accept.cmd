@echo off
rem Runs the test programs one after the other, and checks what they leave in the folder "results" beside this file.
rem   accept.cmd [PROGRAM...]     all of them, or those that are named
rem Ends with 0 if every program has left complete results without a failure, and with 1 otherwise.
rem
rem Plain commands only: the cmd of Wine runs it, too.
setlocal
set "BIN=%~dp0bin"
set "RESULTS=%~dp0results"
rem Tests that would change what belongs to this machine are left out.
set FC_LEAVE_MACHINE_ALONE=1
rem For each program.
if "%FC_TEST_SECONDS%"=="" set FC_TEST_SECONDS=1800

if exist "%RESULTS%" rmdir /s /q "%RESULTS%"
rem Nothing of an earlier run may count.
if exist "%RESULTS%" goto nofolder
mkdir "%RESULTS%"
if not exist "%RESULTS%" goto nofolder
pushd "%RESULTS%"
ver > system.txt
echo %PROCESSOR_ARCHITECTURE%, %NUMBER_OF_PROCESSORS% processors>> system.txt
rem Not by "if errorlevel 1": the status of a crash is a negative number.
"%BIN%\fc-host.exe" --version > version.txt
if not "%errorlevel%"=="0" goto nohost

if "%~1"=="" copy "%BIN%\test-programs.txt" programs.txt > nul
for %%P in (%*) do >>programs.txt echo %%P
set COUNT=0
set NUMBER=0
for /f %%P in (programs.txt) do set /a COUNT+=1
for /f %%P in (programs.txt) do call :run %%P

"%BIN%\fc-host.exe" --quiet "%BIN%\accept.lua" summary
if not "%errorlevel%"=="0" goto failed
if not exist passed.txt goto failed
popd
exit /b 0

:failed
popd
echo FAILED: send the folder "%RESULTS%" to whoever sent you this package.
exit /b 1

:nofolder
echo error: "%RESULTS%" can't be made anew: unpack the package into a folder that you may write to, and close what uses it.
exit /b 1

:nohost
popd
echo error: "%BIN%\fc-host.exe" does not run: is all of the package unpacked, and this a 64-bit Windows?
exit /b 1

:run
set /a NUMBER+=1
echo [%NUMBER%/%COUNT%] %1
"%BIN%\fc-launch.exe" --seconds %FC_TEST_SECONDS% %1.status "%BIN%\%1.exe" --gtest_output=xml:%1.xml > %1.log 2>&1
"%BIN%\fc-host.exe" --quiet "%BIN%\accept.lua" tell %1
exit /b 0
