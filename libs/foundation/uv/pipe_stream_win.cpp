#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <memory>
#include <vector>

#include "foundation/uv/pipe_stream.h"
#include "foundation/wide_string_win.h"

namespace fn::uv {
namespace {

// The user SID of a process's token, or empty.
std::vector<uint8_t> tokenUser(HANDLE process) {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(process, TOKEN_QUERY, &token))
    return {};
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<uint8_t> buffer(size);
  bool ok = size && ::GetTokenInformation(token, TokenUser, buffer.data(), size, &size);
  ::CloseHandle(token);
  if (!ok)
    return {};
  auto const* user = reinterpret_cast<TOKEN_USER const*>(buffer.data());
  auto const* sid = static_cast<uint8_t const*>(user->User.Sid);
  return std::vector<uint8_t>(sid, sid + ::GetLengthSid(user->User.Sid));
}

// A DACL that grants everything to this process's user and nothing to anyone else.
struct UserOnlyDescriptor {
  UserOnlyDescriptor() {
    std::vector<uint8_t> sid = tokenUser(::GetCurrentProcess());
    wchar_t* sidText = nullptr;
    if (sid.empty() || !::ConvertSidToStringSidW(sid.data(), &sidText))
      return;
    std::wstring sddl = L"D:P(A;;GA;;;" + std::wstring(sidText) + L")";
    ::LocalFree(sidText);
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                           &descriptor, nullptr);
  }
  ~UserOnlyDescriptor() { ::LocalFree(descriptor); }
  PACL dacl() const {
    BOOL present = FALSE, defaulted = FALSE;
    PACL acl = nullptr;
    if (!descriptor || !::GetSecurityDescriptorDacl(descriptor, &present, &acl, &defaulted))
      return nullptr;
    return present ? acl : nullptr;
  }
  PSECURITY_DESCRIPTOR descriptor = nullptr;
};

}  // namespace

// libuv creates the pipe with the default descriptor, which lets every user read. The
// descriptor belongs to the pipe, not to one instance, so replacing it on the first instance
// covers the ones libuv creates for later clients.
Status PipeStream::bind(String const& path) {
  int status = uv_pipe_bind(&_pipe, path.c_str());
  if (status != 0)
    return Status("bind " + path, status);
  UserOnlyDescriptor descriptor;
  PACL dacl = descriptor.dacl();
  HANDLE instance = _pipe.pipe.serv.accept_reqs ? _pipe.pipe.serv.accept_reqs[0].pipeHandle
                                                : INVALID_HANDLE_VALUE;
  if (!dacl || instance == INVALID_HANDLE_VALUE ||
      ::SetSecurityInfo(instance, SE_KERNEL_OBJECT,
                        DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                        nullptr, dacl, nullptr) != ERROR_SUCCESS) {
    // A pipe others could open is worse than none.
    return Status("bind " + path + " (securing the pipe)", UV_EACCES);
  }
  return Status("bind " + path, 0);
}

std::optional<uint32_t> PipeStream::peerUserId() const {
  // Windows users are SIDs, not numbers; peerIsSameUser() compares them.
  return std::nullopt;
}

std::optional<int64_t> PipeStream::peerProcessId() const {
  HANDLE pipe = _pipe.handle;
  ULONG pid = 0;
  if (pipe == INVALID_HANDLE_VALUE ||
      !(::GetNamedPipeClientProcessId(pipe, &pid) || ::GetNamedPipeServerProcessId(pipe, &pid)))
    return std::nullopt;
  return pid;
}

bool PipeStream::peerIsSameUser() const {
  auto peer = peerProcessId();
  if (!peer)
    return false;
  DWORD pid = static_cast<DWORD>(*peer);
  if (pid == ::GetCurrentProcessId())
    return true;
  HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid);
  if (!process)
    return false;
  std::vector<uint8_t> user = tokenUser(process);
  ::CloseHandle(process);
  return !user.empty() && user == tokenUser(::GetCurrentProcess());
}

}  // namespace fn::uv
