#include <algorithm>
#include <array>
#include <cwchar>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "system/child.h"
#include "system/files.h"
#include "system/handle_windows.h"
#include "system/io_error.h"
#include "system/reason_windows.h"
#include "windows_path.h"

namespace {

constexpr DWORD PIPE_BYTES = 65536;  // that it holds before a reader comes
constexpr std::array<const char*, 5> ENDINGS = {"", ".exe", ".com", ".bat", ".cmd"};

[[noreturn]] void refuse() {
    throw IoError(windows_reason(GetLastError()));
}

std::string with_ending(const std::string& path) {
    for (const char* const ending : ENDINGS) {
        std::error_code error;
        if (std::filesystem::is_regular_file(native_path(path + ending), error)) return path + ending;
    }
    return "";
}

std::string variable(const wchar_t* name) {
    std::wstring value(GetEnvironmentVariableW(name, nullptr, 0), L'\0');
    value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
    return utf8_text(value);
}

// As programs take it apart again: a backslash counts itself, but before a quotation mark.
std::wstring as_word(std::wstring_view word) {
    if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring_view::npos) return std::wstring(word);
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : word) {
        if (c == L'"') text.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        text += c;
    }
    text.append(backslashes, L'\\');
    return text + L'"';
}

std::wstring command_line(const std::vector<std::string>& arguments) {
    std::wstring line;
    for (const std::string& argument : arguments) line += (line.empty() ? L"" : L" ") + as_word(wide_text(argument));
    return line;
}

// This process's variables, of which others replace those of the same name.
std::wstring environment_with(const std::vector<std::string>& others) {
    std::wstring block;
    const auto name_of = [](std::wstring_view text) { return text.substr(0, text.find(L'=', 1)); };
    std::vector<std::wstring> wide;
    for (const std::string& other : others) wide.push_back(wide_text(other));
    const auto replaced = [&](std::wstring_view text) {
        return std::ranges::any_of(wide, [&](const std::wstring& other) {
            const auto a = name_of(text);
            const auto b = name_of(other);
            return a.size() == b.size() && _wcsnicmp(a.data(), b.data(), a.size()) == 0;
        });
    };
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* text = own; text != nullptr && *text != L'\0'; text += std::wcslen(text) + 1) {
        if (!replaced(text)) block.append(text).push_back(L'\0');
    }
    FreeEnvironmentStringsW(own);
    for (const std::wstring& other : wide) block.append(other).push_back(L'\0');
    block.push_back(L'\0');
    return block;
}

struct Pipe {
    Handle reader, writer;
};

Pipe make_pipe() {
    HANDLE reader = nullptr;
    HANDLE writer = nullptr;
    if (CreatePipe(&reader, &writer, nullptr, PIPE_BYTES) == 0) refuse();
    return {Handle(reader), Handle(writer)};
}

void let_inherit(const Handle& handle) {
    if (handle && SetHandleInformation(handle.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) == 0) refuse();
}

// The handles that a child gets, and no others of ours.
class Inheritance {
  public:
    explicit Inheritance(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
        SIZE_T bytes = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &bytes);
        room_.resize(bytes);
        if (InitializeProcThreadAttributeList(list(), 1, 0, &bytes) == 0) refuse();
        if (UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                      handles_.size() * sizeof(HANDLE), nullptr, nullptr) == 0) {
            refuse();
        }
    }
    Inheritance(const Inheritance&) = delete;
    Inheritance& operator=(const Inheritance&) = delete;
    ~Inheritance() { DeleteProcThreadAttributeList(list()); }

    LPPROC_THREAD_ATTRIBUTE_LIST list() { return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(room_.data()); }

  private:
    std::vector<HANDLE> handles_;
    std::vector<char> room_;
};

// All processes that a child starts, which end with it.
Handle make_job(bool ends_with_us) {
    Handle job(CreateJobObjectW(nullptr, nullptr));
    if (!job) refuse();
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    if (ends_with_us) limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    return job;
}

}  // namespace

std::string find_program(const std::string& program) {
    if (program.find_first_of("/\\:") != std::string::npos) return with_ending(program);
    const std::string path = variable(L"PATH");
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find(';', begin), path.size());
        const std::string directory = path.substr(begin, end - begin);
        const std::string found = directory.empty() ? "" : with_ending(directory + "\\" + program);
        if (!found.empty()) return found;
        begin = end + 1;
    }
    return "";
}

struct Child::Process {
    Handle process = {}, job = {}, output = {};
    std::optional<int> status = {};
};

// cppcheck-suppress passedByValue  ; the other implementation changes them
Child::Child(const std::string& path, std::vector<std::string> arguments, const Options& options)
    : process_(std::make_unique<Process>()) {
    std::wstring line = command_line(arguments);
    std::wstring variables = environment_with(options.variables);
    if (options.input.size() > PIPE_BYTES) throw IoError("its input is too long");
    Pipe input = make_pipe();
    Pipe output = make_pipe();
    DWORD written = 0;
    if (!options.input.empty() && WriteFile(input.writer.get(), options.input.data(),
                                            static_cast<DWORD>(options.input.size()), &written, nullptr) == 0) {
        refuse();
    }
    let_inherit(input.reader);
    let_inherit(output.writer);
    Inheritance inheritance({input.reader.get(), output.writer.get()});

    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = input.reader.get();
    startup.StartupInfo.hStdOutput = output.writer.get();
    startup.StartupInfo.hStdError = output.writer.get();
    startup.lpAttributeList = inheritance.list();
    constexpr DWORD HOW = CREATE_NEW_PROCESS_GROUP | CREATE_NO_WINDOW | CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT |
                          EXTENDED_STARTUPINFO_PRESENT;
    process_->job = make_job(options.ends_with_us);
    PROCESS_INFORMATION started{};
    if (CreateProcessW(windows_path(path).c_str(), line.data(), nullptr, nullptr, TRUE, HOW, variables.data(), nullptr,
                       &startup.StartupInfo, &started) == 0) {
        refuse();
    }
    process_->process = Handle(started.hProcess);
    const Handle thread(started.hThread);
    AssignProcessToJobObject(process_->job.get(), process_->process.get());
    ResumeThread(thread.get());
    process_->output = std::move(output.reader);
}

Child::~Child() {
    if (!ended()) TerminateJobObject(process_->job.get(), 1);
}

std::size_t Child::read_output(std::span<char> room) {
    DWORD there = 0;
    const HANDLE output = process_->output.get();
    if (PeekNamedPipe(output, nullptr, 0, nullptr, &there, nullptr) == 0 || there == 0) return 0;
    DWORD got = 0;
    const auto wanted = static_cast<DWORD>(std::min<std::size_t>(there, room.size()));
    return ReadFile(output, room.data(), wanted, &got, nullptr) != 0 ? got : 0;
}

std::optional<int> Child::ended() {
    DWORD status = 0;
    if (!process_->status && WaitForSingleObject(process_->process.get(), 0) == WAIT_OBJECT_0 &&
        GetExitCodeProcess(process_->process.get(), &status) != 0) {
        process_->status = static_cast<int>(status);
    }
    return process_->status;
}

std::string ending_text(int status) {
    return "exit status " + std::to_string(status);
}
