// Whole-file reads and writes. Paths arrive as UTF-8 and are opened through
// the wide-character calls; like the ANSI ones, at most MAX_PATH characters.
#include <windows.h>

#include <utility>

#include "Platform/Platform.h"

namespace NORVA::Platform {

namespace {

bool widePath(const std::string& path, wchar_t (&wide)[MAX_PATH]) {
    if (path.empty()) return false;
    int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(), int(path.size()), wide, MAX_PATH - 1);
    if (length <= 0) return false;
    wide[length] = L'\0';
    return true;
}

}  // namespace

bool readWholeFile(const std::string& path, std::string& bytes) {
    wchar_t wide[MAX_PATH];
    if (!widePath(path, wide)) return false;
    HANDLE file = CreateFileW(wide, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file, &size) || size.QuadPart < 0 || size.QuadPart > 0x7FFFFFFF) {
        CloseHandle(file);
        return false;
    }
    std::string data(std::size_t(size.QuadPart), '\0');
    std::size_t done = 0;
    while (done < data.size()) {
        DWORD got = 0;
        if (!ReadFile(file, data.data() + done, DWORD(data.size() - done), &got, nullptr) || got == 0) break;
        done += got;
    }
    CloseHandle(file);
    // A short read means the file changed under us: take none of it.
    if (done != data.size()) return false;
    bytes = std::move(data);
    return true;
}

bool writeWholeFile(const std::string& path, const std::string& bytes) {
    wchar_t wide[MAX_PATH];
    if (!widePath(path, wide)) return false;
    HANDLE file = CreateFileW(wide, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        DWORD put = 0;
        if (!WriteFile(file, bytes.data() + done, DWORD(bytes.size() - done), &put, nullptr) || put == 0)
            break;
        done += put;
    }
    bool closed = CloseHandle(file) != 0;
    return closed && done == bytes.size();
}

}  // namespace NORVA::Platform
