// Stands in for vellum-authopen in tests: speaks its protocol but misbehaves
// on purpose. The first argument picks how; the protocol's arguments follow
// and the last one is the path.
//   nothing    passes no descriptor (a user who refused authorization)
//   read-only  passes a read-only descriptor whatever was asked
//   two        passes two descriptors in one message
//   data-only  sends the data byte without a descriptor
//   stdin      passes its standard input, which the test opened beforehand

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace {

int send(const int* fds, int count) {
  char byte = 0;
  iovec vector{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  if (count > 0) {
    const auto bytes = static_cast<std::size_t>(count) * sizeof(int);
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(bytes);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(bytes);
    std::memcpy(CMSG_DATA(header), fds, bytes);
  }
  return ::sendmsg(STDOUT_FILENO, &message, 0) == 1 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string_view mode = argv[1];
  const char* path = argv[argc - 1];
  if (mode == "nothing") return 0;
  if (mode == "data-only") return send(nullptr, 0);
  if (mode == "stdin") {
    const int in = STDIN_FILENO;
    return send(&in, 1);
  }
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 1;
  if (mode == "read-only") return send(&fd, 1);
  if (mode == "two") {
    const int fds[2] = {fd, fd};
    return send(fds, 2);
  }
  return 2;
}
