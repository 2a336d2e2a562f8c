// tavo_dmabuf_exerciser: drives the dma-buf paths a vgem device can drive,
// for the end-to-end check in the kernel-matrix VMs.
//   tavo_dmabuf_exerciser [--hold] [DEVICE]   (default /dev/dri/card0, a vgem node)
// Creates two dumb buffers, exports each as a dma-buf, maps and unmaps the
// first, passes the second to a child over SCM_RIGHTS (the child maps,
// unmaps and closes it), then closes everything: the last references go
// with the exporter's GEM handles, so it releases both buffers. Prints what a checker needs
// to recognise the records, one line each:
//   buffer <name> <pid> <inode> <size>      (the exporting process)
//   mapped <name> <pid>                     (a process that mapped it)
// With --hold both processes close standard output when done and stay
// until standard input closes, so a checker can see what the service says
// of them while they live (a process's exit purges its dma-buf entries).
// vgem cannot drive dma_buf_attach/detach (importing into the same device
// reuses the GEM object, and there is no second device) nor
// dma_buf_vmap/vunmap (no kernel user maps its buffers).
#include <fcntl.h>
#include <libdrm/drm.h>
#include <libdrm/drm_mode.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

using android::base::unique_fd;

namespace {

struct Buffer {
  explicit Buffer(const char* n) : name(n) {}
  const char* name;
  uint32_t handle = 0;
  uint64_t size = 0;
  unique_fd fd;  // the dma-buf
};

bool Fail(const char* what) {
  fprintf(stderr, "tavo_dmabuf_exerciser: %s: %s\n", what, strerror(errno));
  return false;
}

bool Create(int card, Buffer* buffer) {
  drm_mode_create_dumb dumb{};
  dumb.width = 256;
  dumb.height = 256;
  dumb.bpp = 32;
  if (ioctl(card, DRM_IOCTL_MODE_CREATE_DUMB, &dumb) != 0) return Fail("DRM_IOCTL_MODE_CREATE_DUMB");
  buffer->handle = dumb.handle;
  buffer->size = dumb.size;
  drm_prime_handle prime{};
  prime.handle = dumb.handle;
  prime.flags = DRM_CLOEXEC | DRM_RDWR;
  if (ioctl(card, DRM_IOCTL_PRIME_HANDLE_TO_FD, &prime) != 0) return Fail("DRM_IOCTL_PRIME_HANDLE_TO_FD");
  buffer->fd.reset(prime.fd);
  struct stat st {};
  if (fstat(buffer->fd.get(), &st) != 0) return Fail("fstat");
  printf("buffer %s %d %llu %llu\n", buffer->name, getpid(), static_cast<unsigned long long>(st.st_ino),
         static_cast<unsigned long long>(buffer->size));
  return true;
}

// Maps the whole buffer, writes to it and unmaps it.
bool MapAndUnmap(int fd, uint64_t size, const char* name) {
  void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) return Fail("mmap");
  memset(map, 0x5a, size);
  if (munmap(map, size) != 0) return Fail("munmap");
  printf("mapped %s %d\n", name, getpid());
  return true;
}

// Closes standard output, then waits until standard input closes.
void Hold() {
  fflush(stdout);
  close(STDOUT_FILENO);
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// Child: takes one dma-buf from the socket, maps, unmaps and closes it.
int Receive(int sock, uint64_t size, bool hold) {
  char tag = 0;
  std::vector<unique_fd> fds;
  if (android::base::ReceiveFileDescriptorVector(sock, &tag, 1, 1, &fds) != 1 || fds.size() != 1) {
    Fail("receiving the dma-buf");
    return 1;
  }
  const bool ok = MapAndUnmap(fds[0].get(), size, "B");
  fds.clear();
  fflush(stdout);
  if (write(sock, "d", 1) != 1) Fail("reporting back");  // done with the buffer
  if (hold) Hold();
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool hold = argc > 1 && strcmp(argv[1], "--hold") == 0;
  const char* device = argc > 1 + hold ? argv[1 + hold] : "/dev/dri/card0";
  setvbuf(stdout, nullptr, _IOLBF, 0);
  unique_fd card(open(device, O_RDWR | O_CLOEXEC));
  if (card < 0) {
    Fail(device);
    return 2;
  }
  Buffer a("A"), b("B");
  if (!Create(card.get(), &a) || !Create(card.get(), &b)) return 1;
  if (!MapAndUnmap(a.fd.get(), a.size, "A")) return 1;

  unique_fd mine, theirs;
  if (!android::base::Socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, &mine, &theirs)) {
    Fail("socketpair");
    return 1;
  }
  const pid_t child = fork();
  if (child < 0) {
    Fail("fork");
    return 1;
  }
  if (child == 0) {
    // Only what comes over the socket: not the parent's buffers or device.
    mine.reset();
    a.fd.reset();
    b.fd.reset();
    card.reset();
    _exit(Receive(theirs.get(), b.size, hold));
  }
  theirs.reset();
  if (android::base::SendFileDescriptors(mine.get(), "b", 1, b.fd.get()) != 1) Fail("sending the dma-buf");
  b.fd.reset();  // the child holds the only descriptor now
  // The child is done with B once it says so (or has gone).
  char done = 0;
  if (read(mine.get(), &done, 1) != 1) Fail("waiting for the child");

  // The GEM handles keep the exported buffers; closing them releases both.
  a.fd.reset();
  for (const Buffer* buffer : {&a, &b}) {
    drm_gem_close gemClose{};
    gemClose.handle = buffer->handle;
    if (ioctl(card.get(), DRM_IOCTL_GEM_CLOSE, &gemClose) != 0) Fail("DRM_IOCTL_GEM_CLOSE");
  }
  if (hold) Hold();
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
