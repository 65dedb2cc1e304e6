// Stands in for vellum-authopen in tests: speaks its protocol but misbehaves
// on purpose. The first argument picks how; the protocol's arguments follow
// and the last one is the path.
//   nothing    passes no descriptor (a user who refused authorization)
//   read-only  passes a read-only descriptor whatever was asked
//   two        passes two descriptors in one message
//   data-only  sends the data byte without a descriptor
//   busy       says it refused because the disk is busy (EBUSY)
//   stdin      passes its standard input, which the test opened beforehand

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace {

int send(const int* fds, std::size_t count) {
  char byte = 0;
  iovec vector{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  if (count > 0) {
    message.msg_control = control;
    message.msg_controllen = CMSG_SPACE(count * sizeof(int));
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    *header = {CMSG_LEN(count * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(header), fds, count * sizeof(int));
  }
  return ::sendmsg(STDOUT_FILENO, &message, 0) == 1 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string_view mode = argv[1];
  const int in = STDIN_FILENO;
  if (mode == "nothing") return 0;
  if (mode == "data-only") return send(nullptr, 0);
  if (mode == "busy") {  // as the helper answers when the disk is in use
    return ::write(STDOUT_FILENO, "refused 16\n", 11) == 11 ? 1 : 2;
  }
  if (mode == "stdin") return send(&in, 1);
  const int fd = ::open(argv[argc - 1], O_RDONLY | O_CLOEXEC);
  const int fds[2] = {fd, fd};
  if (fd < 0) return 1;
  return send(fds, mode == "two" ? 2 : 1);  // read-only
}
