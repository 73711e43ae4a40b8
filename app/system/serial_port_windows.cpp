#include <windows.h>

#include "system/io_error.h"
#include "system/reason_windows.h"
#include "system/serial_port.h"
#include "windows_path.h"

namespace {

HANDLE handle_of(intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

// Ports from COM10 on have no other name.
std::wstring device_of(const std::string& name) {
    const std::wstring wide = wide_text(name);
    return wide.starts_with(L"\\\\") ? wide : L"\\\\.\\" + wide;
}

}  // namespace

void SerialPort::refuse(const std::string& what) {
    const std::string reason = windows_reason(GetLastError());
    close();
    throw IoError(what.empty() ? reason : what + ": " + reason);
}

// Another program may have it open: that shows when it is wanted.
bool SerialPort::is_port() const {
    std::wstring target(4096, L'\0');
    const std::wstring wide = wide_text(name_);
    const std::wstring device = wide.starts_with(L"\\\\.\\") ? wide.substr(4) : wide;
    if (QueryDosDeviceW(device.c_str(), target.data(), static_cast<DWORD>(target.size())) != 0) return true;
    throw IoError(windows_reason(GetLastError()));
}

void SerialPort::open() {
    if (is_open()) return;
    handle_ = reinterpret_cast<intptr_t>(
        CreateFileW(device_of(name_).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!is_open()) refuse("");
    DCB settings{};
    settings.DCBlength = sizeof settings;
    if (GetCommState(handle_of(handle_), &settings) == 0) refuse("");
    settings.fRtsControl = RTS_CONTROL_DISABLE;
    settings.fDtrControl = DTR_CONTROL_DISABLE;
    settings.fOutxCtsFlow = FALSE;
    settings.fOutxDsrFlow = FALSE;
    if (SetCommState(handle_of(handle_), &settings) == 0) refuse("cannot lower the lines");
}

void SerialPort::raise(SerialLine line) {
    if (EscapeCommFunction(handle_of(handle_), line == SerialLine::RTS ? SETRTS : SETDTR) == 0) {
        refuse("cannot raise the line");
    }
}

void SerialPort::lower() {
    const bool rts = EscapeCommFunction(handle_of(handle_), CLRRTS) != 0;
    const bool dtr = EscapeCommFunction(handle_of(handle_), CLRDTR) != 0;
    if (!rts || !dtr) refuse("cannot lower the line");
    close();
}

void SerialPort::close() {
    if (is_open()) CloseHandle(handle_of(std::exchange(handle_, CLOSED)));
}
