// The hub's pipe on Windows: its DACL admits the current user and nobody else.
#include <windows.h>

#include <aclapi.h>
#include <gtest/gtest.h>

#include <vector>

#include "foundation/uv/loop.h"
#include "foundation/uv/pipe_stream.h"
#include "foundation/wide_string_win.h"
#include "platform.h"

namespace fn {
namespace {

std::vector<uint8_t> currentUserSid() {
  HANDLE token = nullptr;
  EXPECT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token));
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  std::vector<uint8_t> buffer(size);
  EXPECT_TRUE(::GetTokenInformation(token, TokenUser, buffer.data(), size, &size));
  ::CloseHandle(token);
  PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
  auto const* bytes = static_cast<uint8_t const*>(sid);
  return {bytes, bytes + ::GetLengthSid(sid)};
}

TEST(PipeSecurity, OnlyTheCurrentUserMayOpenTheHubsPipe) {
  uv::Loop loop;
  String path = testing_support::localPipePath({}, "security");
  auto server = uv::PipeStream::create(loop);
  ASSERT_TRUE(server->bind(path));
  ASSERT_TRUE(server->listen(4, [](uv::Status) {}));

  // A client's view of the pipe: its owner's descriptor, read back from the kernel.
  HANDLE client = ::CreateFileW(toWide(path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(client, INVALID_HANDLE_VALUE) << ::GetLastError();
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_EQ(::GetSecurityInfo(client, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                              &dacl, nullptr, &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  ASSERT_NE(dacl, nullptr);
  // One entry, allowing everything to this user: no read access for everyone, as the default
  // descriptor of a named pipe would give.
  ASSERT_EQ(dacl->AceCount, 1);
  void* entry = nullptr;
  ASSERT_TRUE(::GetAce(dacl, 0, &entry));
  auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
  EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
  std::vector<uint8_t> user = currentUserSid();
  EXPECT_TRUE(::EqualSid(&allowed->SidStart, user.data()));
  ::LocalFree(descriptor);
  ::CloseHandle(client);
  server->close();
  loop.runUntil([] { return false; });
}

}  // namespace
}  // namespace fn
