#include "Platform/win32/Wine.h"

#include <windows.h>

namespace NORVA::Platform {

bool runningUnderWine() {
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

}  // namespace NORVA::Platform
