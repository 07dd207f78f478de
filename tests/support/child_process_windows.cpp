#include <windows.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "support/child_process_handles.h"

namespace support {
namespace {

constexpr UINT kKilled = static_cast<UINT>(-9);

class Handle {
 public:
  explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
  ~Handle() {
    if (handle_ != nullptr) {
      CloseHandle(handle_);
    }
  }
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }

  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_;
};

void require(bool success, const char* step) {
  if (!success) {
    throw std::runtime_error(std::string(step) + ": error " + std::to_string(GetLastError()));
  }
}

struct Pipe {
  Pipe() {
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    require(CreatePipe(&readEnd, &writeEnd, nullptr, 0) != 0, "CreatePipe");
    reading = Handle(readEnd);
    writing = Handle(writeEnd);
  }

  Handle reading;
  Handle writing;
};

void makeInheritable(HANDLE handle) {
  require(SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT) != 0, "SetHandleInformation");
}

// Lets the child inherit the given handles and no other, whatever is started side by side.
class InheritedHandles {
 public:
  explicit InheritedHandles(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
    SIZE_T bytes = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &bytes);
    buffer_.resize(bytes);
    require(InitializeProcThreadAttributeList(list(), 1, 0, &bytes) != 0, "InitializeProcThreadAttributeList");
    require(UpdateProcThreadAttribute(list(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                      handles_.size() * sizeof(HANDLE), nullptr, nullptr) != 0,
            "UpdateProcThreadAttribute");
  }
  ~InheritedHandles() { DeleteProcThreadAttributeList(list()); }
  InheritedHandles(const InheritedHandles&) = delete;
  InheritedHandles& operator=(const InheritedHandles&) = delete;

  LPPROC_THREAD_ATTRIBUTE_LIST list() { return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(buffer_.data()); }

 private:
  std::vector<HANDLE> handles_;
  std::vector<char> buffer_;
};

std::wstring wide(const std::string& text) { return std::filesystem::path(text).wstring(); }

// No argument of a test holds a quote or ends with a backslash.
std::wstring commandLine(const std::filesystem::path& program, const std::vector<std::string>& arguments) {
  std::wstring line = L'"' + program.wstring() + L'"';
  for (const std::string& argument : arguments) {
    line += L" \"" + wide(argument) + L'"';
  }
  return line;
}

// The variables of this process, those in `added` replaced, as one block.
std::wstring environmentBlock(const ChildProcess::Environment& added) {
  struct IgnoringCase {
    bool operator()(const std::wstring& a, const std::wstring& b) const {
      return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    }
  };
  std::map<std::wstring, std::wstring, IgnoringCase> variables;
  for (const auto& [name, value] : added) {
    variables.emplace(wide(name), wide(value));
  }
  wchar_t* const own = GetEnvironmentStringsW();
  for (const wchar_t* text = own; *text != L'\0'; text += std::wstring(text).size() + 1) {
    const std::wstring variable = text;
    const std::size_t equals = variable.find(L'=', 1);  // a drive's current folder has a name that starts with '='
    variables.emplace(variable.substr(0, equals), equals == std::wstring::npos ? L"" : variable.substr(equals + 1));
  }
  FreeEnvironmentStringsW(own);
  std::wstring block;
  for (const auto& [name, value] : variables) {
    block += name + L'=' + value + L'\0';
  }
  return block + L'\0';
}

// Ends what is in it when it is closed, be it because the test has ended.
Handle newJob() {
  Handle job(CreateJobObjectW(nullptr, nullptr));
  require(job.get() != nullptr, "CreateJobObject");
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  require(SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof(limits)) != 0,
          "SetInformationJobObject");
  return job;
}

}  // namespace

struct ChildProcess::Handles::Members {
  Handle job = newJob();
  Handle process;
  DWORD id = 0;
  Handle in;
  Handle out;
};

ChildProcess::Handles::Handles(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                               const Environment& environment)
    : members_(std::make_unique<Members>()) {
  Pipe in;
  Pipe out;
  std::vector<HANDLE> inherited{in.reading.get(), out.writing.get()};
  makeInheritable(in.reading.get());
  makeInheritable(out.writing.get());
  const HANDLE errors = GetStdHandle(STD_ERROR_HANDLE);
  if (errors != nullptr && errors != INVALID_HANDLE_VALUE &&
      SetHandleInformation(errors, HANDLE_FLAG_INHERIT, 1) != 0) {
    inherited.push_back(errors);
  }
  InheritedHandles attributes(inherited);
  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof(startup);
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = in.reading.get();
  startup.StartupInfo.hStdOutput = out.writing.get();
  startup.StartupInfo.hStdError = errors;
  startup.lpAttributeList = attributes.list();

  std::wstring line = commandLine(program, arguments);
  std::wstring variables = environmentBlock(environment);
  PROCESS_INFORMATION started{};
  require(CreateProcessW(program.wstring().c_str(), line.data(), nullptr, nullptr, TRUE,
                         EXTENDED_STARTUPINFO_PRESENT | CREATE_UNICODE_ENVIRONMENT | CREATE_SUSPENDED, variables.data(),
                         nullptr, &startup.StartupInfo, &started) != 0,
          "CreateProcess");
  members_->process = Handle(started.hProcess);
  members_->id = started.dwProcessId;
  members_->in = std::move(in.writing);
  members_->out = std::move(out.reading);
  const Handle thread(started.hThread);
  AssignProcessToJobObject(members_->job.get(), members_->process.get());
  ResumeThread(thread.get());
}

ChildProcess::Handles::~Handles() = default;

std::uint32_t ChildProcess::Handles::id() const { return members_->id; }

bool ChildProcess::Handles::read(std::string& text, std::chrono::milliseconds patience) {
  // A pipe cannot be waited for.
  const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(patience.count());
  DWORD available = 0;
  while (PeekNamedPipe(members_->out.get(), nullptr, 0, nullptr, &available, nullptr) != 0) {
    if (available > 0) {
      std::array<char, 4096> part{};
      DWORD count = 0;
      const BOOL success = ReadFile(members_->out.get(), part.data(), part.size(), &count, nullptr);
      text.append(part.data(), count);
      return success != 0;
    }
    if (GetTickCount64() >= end) {
      return true;
    }
    Sleep(1);
  }
  return false;
}

void ChildProcess::Handles::write(const std::string& text) {
  DWORD written = 0;
  WriteFile(members_->in.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void ChildProcess::Handles::closeInput() { members_->in = Handle(); }

void ChildProcess::Handles::kill() { TerminateProcess(members_->process.get(), kKilled); }

std::optional<int> ChildProcess::Handles::exitCode() {
  DWORD code = 0;
  if (WaitForSingleObject(members_->process.get(), 0) != WAIT_OBJECT_0 ||
      GetExitCodeProcess(members_->process.get(), &code) == 0) {
    return std::nullopt;
  }
  return static_cast<int>(code);
}

}  // namespace support
