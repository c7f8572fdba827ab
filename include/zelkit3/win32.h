// zelkit3/win32.h - Win32 names for code ported from Windows (optional).
//
// Code written for Windows says HANDLE, DWORD, CreateEvent and
// WaitForSingleObject without a namespace. This header gives it those names
// in the global namespace, as plain aliases of what libzelkit3 already
// offers: typedefs of the library's own types, using-declarations of the
// functions of zelkit3::win_emul, and the macros Win32 code expects. It adds
// no code and no exported symbol; leaving it out changes nothing else.
// Include it in place of <windows.h>, and only in code being ported: it puts
// short common names (TRUE, Sleep, CloseHandle) into the global namespace.
//
// Differences from <windows.h> that callers see:
//   * DWORD is unsigned long, as in every signature of the library: 32 bits
//     on i386 but 64 bits on x86_64 (Win32 keeps it at 32 bits everywhere).
//     Code that stores a DWORD in a 32-bit file field must say so itself;
//   * WCHAR is wchar_t, 32 bits wide on Linux, not 16: a WCHAR string is
//     UTF-32 here, and L"" literals follow;
//   * only the wide (W) forms exist, so CreateEvent and OpenEvent always mean
//     CreateEventW and OpenEventW, whether UNICODE is defined or not; a narrow
//     name does not compile, which is better than a silent conversion;
//   * a HANDLE is an event and nothing else: there are no thread, file or
//     mutex handles, no DuplicateHandle, no GetLastError;
//   * the behaviour of events, waits and clocks differs where
//     zelkit3/win_emul.h says so (auto-reset wake-ups, early WAIT_TIMEOUT of a
//     wait for any, GetTickCount on the wall clock).
//
// Thread-safety and lifetime are those of the functions named here.
#ifndef ZELKIT3_WIN32_H
#define ZELKIT3_WIN32_H

#include <stddef.h>  // NULL

#include "zelkit3/date.h"
#include "zelkit3/safe_crt.h"
#include "zelkit3/win_emul.h"

// ---- Types, under their Win32 names, as the library's signatures use them.

typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef HANDLE* LPHANDLE;
typedef unsigned long DWORD;  // see the banner: 64 bits on x86_64
typedef DWORD* PDWORD;
typedef DWORD* LPDWORD;
typedef int BOOL;  // results are 0 or 1
typedef BOOL* PBOOL;
typedef BOOL* LPBOOL;
typedef unsigned char BYTE;
typedef unsigned short WORD;
typedef unsigned int UINT;
typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef char CHAR;
typedef CHAR* LPSTR;
typedef const CHAR* LPCSTR;
typedef wchar_t WCHAR;  // see the banner: 32 bits wide
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;

typedef _SECURITY_ATTRIBUTES SECURITY_ATTRIBUTES;
typedef _SECURITY_ATTRIBUTES* PSECURITY_ATTRIBUTES;
typedef _SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;
typedef _LARGE_INTEGER LARGE_INTEGER;
typedef _LARGE_INTEGER* PLARGE_INTEGER;
typedef _SYSTEMTIME SYSTEMTIME;
typedef _SYSTEMTIME* PSYSTEMTIME;
typedef _SYSTEMTIME* LPSYSTEMTIME;
typedef _TIME_ZONE_INFORMATION TIME_ZONE_INFORMATION;
typedef _TIME_ZONE_INFORMATION* PTIME_ZONE_INFORMATION;
typedef _TIME_ZONE_INFORMATION* LPTIME_ZONE_INFORMATION;

// ---- Values. INFINITE, WAIT_OBJECT_0 and WAIT_TIMEOUT come from win_emul.h.

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
// Calling-convention markers: meaningless on Linux, kept so that
// "DWORD WINAPI ThreadProc(LPVOID)" compiles unchanged.
#ifndef WINAPI
#define WINAPI
#endif
#ifndef CALLBACK
#define CALLBACK
#endif
// Win32 caps a wait at 64 handles; the library serves any count, and the
// constant is given for code that sizes its arrays by it.
#ifndef MAXIMUM_WAIT_OBJECTS
#define MAXIMUM_WAIT_OBJECTS 64
#endif
// Access rights for OpenEvent, which does not read them.
#ifndef SYNCHRONIZE
#define SYNCHRONIZE 0x00100000UL
#endif
#ifndef EVENT_MODIFY_STATE
#define EVENT_MODIFY_STATE 0x0002UL
#endif
#ifndef EVENT_ALL_ACCESS
#define EVENT_ALL_ACCESS 0x001F0003UL
#endif

// ---- Functions: the library's own, brought into the global namespace.

using zelkit3::win_emul::CloseHandle;
using zelkit3::win_emul::CreateEventW;
using zelkit3::win_emul::GetTickCount;
using zelkit3::win_emul::OpenEventW;
using zelkit3::win_emul::PulseEvent;
using zelkit3::win_emul::QueryPerformanceCounter;
using zelkit3::win_emul::QueryPerformanceFrequency;
using zelkit3::win_emul::ResetEvent;
using zelkit3::win_emul::SetEvent;
using zelkit3::win_emul::Sleep;
using zelkit3::win_emul::WaitForMultipleObjects;
using zelkit3::win_emul::WaitForSingleObject;

using zelkit3::win_emul::_sopen_s;
using zelkit3::win_emul::_strlwr_s;
using zelkit3::win_emul::_strupr_s;
using zelkit3::win_emul::fopen_s;
using zelkit3::win_emul::freopen_s;
using zelkit3::win_emul::strcat_s;
using zelkit3::win_emul::strcpy_s;
using zelkit3::win_emul::strncpy_s;

// Win32 spells the functions that take text without A or W and picks the form
// by UNICODE. Only the W form exists here, so the plain name is always W.
#ifndef CreateEvent
#define CreateEvent CreateEventW
#endif
#ifndef OpenEvent
#define OpenEvent OpenEventW
#endif

#endif  // ZELKIT3_WIN32_H
