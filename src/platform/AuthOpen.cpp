#include "platform/AuthOpen.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "platform/Process.h"

#ifndef VELLUM_HELPER_INSTALL_DIR
#define VELLUM_HELPER_INSTALL_DIR "/usr/local/libexec/vellum-check"
#endif

namespace vellum {
namespace {

bool isExecutableFile(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

// Takes every descriptor of every SCM_RIGHTS message, so none leaks, and
// keeps the one descriptor only when exactly one arrived.
UniqueFd takeDescriptor(msghdr& message) {
  std::vector<UniqueFd> received;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    if (header->cmsg_len < CMSG_LEN(sizeof(int))) continue;
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    const auto* data = CMSG_DATA(header);
    for (std::size_t i = 0; i < count; ++i) {
      int fd = -1;
      std::memcpy(&fd, data + i * sizeof(int), sizeof(int));
      received.emplace_back(fd);
    }
  }
  if (received.size() != 1 || (message.msg_flags & MSG_CTRUNC) != 0) return {};
  if (received.front().get() < 1) return {};
  return std::move(received.front());
}

}  // namespace

AuthOpenCommand AuthOpenCommand::systemDefault() {
  if (const char* override = std::getenv("VL_AUTHOPEN_HELPER"); override && *override) {
    return direct(override);
  }
  const std::string helper =
      findHelperProgram("vellum-authopen")
          .value_or(std::string(kInstalledHelperFolder) + "/vellum-authopen");
  return AuthOpenCommand{{findProgram("pkexec").value_or("/usr/bin/pkexec"), helper}};
}

AuthOpenCommand AuthOpenCommand::direct(std::string program) {
  return AuthOpenCommand{{std::move(program)}};
}

const std::string_view kInstalledHelperFolder = VELLUM_HELPER_INSTALL_DIR;

std::optional<std::string> findHelperProgram(std::string_view name) {
  std::error_code error;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  std::vector<std::filesystem::path> candidates;
  if (!error) {
    const std::filesystem::path folder = executable.parent_path();
    candidates.push_back(folder / name);
    candidates.push_back(folder.parent_path() / "libexec" / "vellum-check" / name);
  }
  candidates.push_back(std::filesystem::path(kInstalledHelperFolder) / name);
  for (const auto& candidate : candidates) {
    if (isExecutableFile(candidate)) return candidate.lexically_normal().string();
  }
  return std::nullopt;
}

AuthOpenReply requestDescriptor(const AuthOpenCommand& command, const std::string& path,
                                std::optional<int> openFlags) {
  AuthOpenReply reply;
  std::array<int, 2> ends{-1, -1};
  // Close-on-exec on both ends: the child gets only the copy on its standard
  // output, so the parent sees end-of-file as soon as the helper exits.
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    reply.systemError = errno;
    return reply;
  }
  UniqueFd parentEnd(ends[0]);
  UniqueFd childEnd(ends[1]);

  // pkexec would only say that authorization failed; a missing program (pkexec
  // or the helper) gets its own answer.
  for (const std::string& word : command.launcher) {
    if (word.starts_with('/') && !isExecutableFile(word)) {
      reply.helperMissing = true;
      return reply;
    }
  }
  std::vector<std::string> argv = command.launcher;
  argv.emplace_back("-stdoutpipe");
  if (openFlags) {
    argv.emplace_back("-o");
    argv.push_back(std::to_string(*openFlags));
  }
  argv.push_back(path);

  SpawnOptions options;
  options.standardInput = Stdio::inherit();  // pkexec may ask on a terminal
  options.standardOutput = Stdio::from(childEnd.get());
  options.standardError = Stdio::inherit();
  std::optional<ChildProcess> child;
  try {
    child.emplace(ChildProcess::start(argv, options));
  } catch (const ProcessError& failure) {
    reply.systemError = failure.as<ProcessError::CannotStart>()->errnum;
    return reply;
  }
  childEnd.reset();

  std::array<char, 64> data{};
  iovec vector{data.data(), data.size()};
  alignas(cmsghdr) std::array<char, 64> control{};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t received = 0;
  do {
    received = ::recvmsg(parentEnd.get(), &message, MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  if (received > 0) reply.fd = takeDescriptor(message);
  const std::string_view text(data.data(), received > 0 ? static_cast<std::size_t>(received) : 0);
  if (!reply.fd && text.starts_with("refused ")) {
    reply.refusedWith = std::atoi(std::string(text.substr(8)).c_str());
  }
  parentEnd.reset();
  // The exit status says nothing the descriptor does not.
  child->wait();
  return reply;
}

}  // namespace vellum
