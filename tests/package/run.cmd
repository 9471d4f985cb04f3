@echo off
rem Runs the tests in this folder on this Windows, and on its cldapi.dll.
rem
rem   run.cmd [text]     with a text: only the tests whose names contain it
rem
rem Windows 10 version 1803 or later, 64 bit; no rights are needed, except where a test says so. What
rem a test prints is in logs\. The last line is "N passed, N failed, N skipped"; the exit code is 0 if
rem nothing failed and something passed. A test that makes no sense here says why.
setlocal
cd /d "%~dp0"

set BUILD=
for /f "tokens=3" %%b in ('reg query "HKLM\SOFTWARE\Microsoft\Windows NT\CurrentVersion" /v CurrentBuildNumber') do set BUILD=%%b
if "%BUILD%"=="" (
  echo The build number of this Windows cannot be read from its registry: nothing was run.
  exit /b 2
)
set FLAGS=000
if %BUILD% GEQ 17134 set FLAGS=100
if %BUILD% EQU 17134 set FLAGS=110
if %BUILD% GEQ 17763 set FLAGS=101
set HERE=%CD%
set PLATFORM=%SystemRoot%\System32\cldapi.dll
if "%CLOUD_FILTER_TEST_DIR%"=="" set CLOUD_FILTER_TEST_DIR=%HERE%\roots

set /a PASSED=0
set /a FAILED=0
set /a SKIPPED=0
if not exist logs mkdir logs
if not exist "%CLOUD_FILTER_TEST_DIR%" mkdir "%CLOUD_FILTER_TEST_DIR%"
echo Nimbra's tests on Windows build %BUILD%

for /f "usebackq tokens=1,2,3* delims=|" %%a in ("tests.txt") do (
  set NAME=%%a
  set NEEDS=%%b
  set PROGRAM=%%c
  set ARGUMENTS=%%d
  call :one %1
)

echo.
echo Groups of tests; what each consists of is in logs\.
echo %PASSED% passed, %FAILED% failed, %SKIPPED% skipped
if not %FAILED%==0 exit /b 1
if %PASSED%==0 exit /b 1
exit /b 0

:one
if "%~1"=="" goto needs
call set WITHOUT=%%NAME:%~1=%%
if "%WITHOUT%"=="%NAME%" exit /b 0

:needs
if "%NEEDS%"=="any" goto run
if "%NEEDS%"=="old" if %BUILD% LSS 17134 goto run
if "%NEEDS%"=="old" call :skip needs a Windows before build 17134
if "%NEEDS%"=="old" exit /b 0
if %BUILD% LSS 17134 call :skip needs Windows build 17134 or later
if %BUILD% LSS 17134 exit /b 0
if "%NEEDS%"=="new" goto run
if "%NEEDS%"=="bare" if not exist "%PLATFORM%" goto run
if "%NEEDS%"=="bare" call :skip needs a Windows without cldapi.dll
if "%NEEDS%"=="bare" exit /b 0
if "%NEEDS%"=="cloud" if exist "%PLATFORM%" goto run
call :skip needs cldapi.dll
exit /b 0

:run
rem The list cannot know the build, what the version queries answer on it, and this folder: it names
rem them as variables.
call set EXPANDED=%ARGUMENTS%
"%PROGRAM%" %EXPANDED% >"logs\%NAME%.log" 2>&1
if errorlevel 1 goto bad
set /a PASSED+=1
echo ok       %NAME%
exit /b 0

:bad
set /a FAILED+=1
echo FAILED   %NAME%   see logs\%NAME%.log
exit /b 0

:skip
set /a SKIPPED+=1
echo skipped  %NAME%: %*
exit /b 0
