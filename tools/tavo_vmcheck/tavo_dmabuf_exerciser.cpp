// tavo_dmabuf_exerciser: drives every dma-buf path it is given devices for,
// for the end-to-end check in the kernel-matrix VMs.
//   tavo_dmabuf_exerciser [--hold] [--vmap V4L2DEV]... [--attach V4L2DEV]...
//                         [--heap HEAPDEV] [--udmabuf DEV] [CARD]
// CARD (default /dev/dri/card0) is a vgem node: two dumb buffers exported
// as dma-bufs, A and B. --heap allocates a third, H, from a dma-buf heap
// (/dev/dma_heap/system), --udmabuf a fourth, U, from a sealed memfd
// (/dev/udmabuf). The process maps and unmaps A, H and U in turn, then
// queues each to every V4L2 capture device given (V4L2_MEMORY_DMABUF, one
// buffer, then none): --vmap names a device whose allocator maps imported
// buffers into the kernel (vivid with its vmalloc allocator: dma_buf_vmap
// and dma_buf_vunmap), --attach one that attaches them to the device
// (vivid with dma-contig: dma_buf_attach and dma_buf_detach; mapping a
// buffer that is not contiguous then fails with EFAULT, which is accepted).
// Each use ends before the next begins. B goes to a child over SCM_RIGHTS,
// which maps, unmaps and closes it. Then everything is closed: the
// exporter's GEM handles take the last references of A and B, its
// descriptors those of H and U, so it releases all of them.
// Prints what a checker needs to recognise the records, one line each:
//   buffer <name> <pid> <inode> <size>          (the exporting process)
//   mapped|vmapped|attached <name> <pid>        (a use, in the order taken)
// With --hold both processes close standard output when done and stay
// until standard input closes, so a checker can see what the service says
// of them while they live (a process's exit purges its dma-buf entries).
#include <fcntl.h>
#include <libdrm/drm.h>
#include <libdrm/drm_mode.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/cmsg.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "util/tavo_options.h"

using android::base::unique_fd;

namespace {

constexpr uint64_t kPage = 4096;
constexpr uint64_t kMinSize = 256 * 1024;

struct Buffer {
  explicit Buffer(const char* n) : name(n) {}
  const char* name;
  uint32_t handle = 0;  // vgem buffers only
  uint64_t size = 0;
  unique_fd fd;  // the dma-buf
};

bool Fail(const std::string& what) {
  fprintf(stderr, "tavo_dmabuf_exerciser: %s: %s\n", what.c_str(), strerror(errno));
  return false;
}

// Takes the dma-buf in fd and prints its buffer line.
bool Exported(Buffer* buffer, int fd) {
  buffer->fd.reset(fd);
  struct stat st {};
  if (fstat(fd, &st) != 0) return Fail("fstat");
  buffer->size = static_cast<uint64_t>(st.st_size);
  printf("buffer %s %d %llu %llu\n", buffer->name, getpid(), static_cast<unsigned long long>(st.st_ino),
         static_cast<unsigned long long>(buffer->size));
  return true;
}

bool CreateVgem(int card, uint64_t size, Buffer* buffer) {
  drm_mode_create_dumb dumb{};
  dumb.width = kPage / 4;
  dumb.height = size / kPage;
  dumb.bpp = 32;
  if (ioctl(card, DRM_IOCTL_MODE_CREATE_DUMB, &dumb) != 0) return Fail("DRM_IOCTL_MODE_CREATE_DUMB");
  buffer->handle = dumb.handle;
  drm_prime_handle prime{};
  prime.handle = dumb.handle;
  prime.flags = DRM_CLOEXEC | DRM_RDWR;
  if (ioctl(card, DRM_IOCTL_PRIME_HANDLE_TO_FD, &prime) != 0) return Fail("DRM_IOCTL_PRIME_HANDLE_TO_FD");
  return Exported(buffer, prime.fd);
}

bool CreateFromHeap(const char* path, uint64_t size, Buffer* buffer) {
  unique_fd heap(open(path, O_RDONLY | O_CLOEXEC));
  if (heap < 0) return Fail(path);
  dma_heap_allocation_data alloc{};
  alloc.len = size;
  alloc.fd_flags = O_RDWR | O_CLOEXEC;
  if (ioctl(heap.get(), DMA_HEAP_IOCTL_ALLOC, &alloc) != 0) return Fail("DMA_HEAP_IOCTL_ALLOC");
  return Exported(buffer, static_cast<int>(alloc.fd));
}

// udmabuf takes a memfd that cannot shrink under it.
bool CreateUdmabuf(const char* path, uint64_t size, Buffer* buffer) {
  unique_fd dev(open(path, O_RDWR | O_CLOEXEC));
  if (dev < 0) return Fail(path);
  unique_fd memfd(memfd_create("tavo_udmabuf", MFD_ALLOW_SEALING | MFD_CLOEXEC));
  if (memfd < 0) return Fail("memfd_create");
  if (ftruncate(memfd.get(), static_cast<off_t>(size)) != 0) return Fail("ftruncate");
  if (fcntl(memfd.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0) return Fail("F_SEAL_SHRINK");
  udmabuf_create create{};
  create.memfd = static_cast<uint32_t>(memfd.get());
  create.flags = UDMABUF_FLAGS_CLOEXEC;
  create.size = size;
  const int fd = ioctl(dev.get(), UDMABUF_CREATE, &create);
  if (fd < 0) return Fail("UDMABUF_CREATE");
  return Exported(buffer, fd);
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

// The size a capture device needs for one frame of its current format.
bool FrameSize(const char* device, uint64_t* size) {
  unique_fd video(open(device, O_RDWR | O_CLOEXEC));
  if (video < 0) return Fail(device);
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (ioctl(video.get(), VIDIOC_G_FMT, &format) != 0) return Fail(std::string(device) + ": VIDIOC_G_FMT");
  *size = std::max<uint64_t>(*size, format.fmt.pix.sizeimage);
  return true;
}

// Queues the buffer to a capture device and takes it back: the device's
// allocator imports it (attach or vmap) and lets it go (detach or vunmap).
// A device that attaches may fail the mapping after the attach (EFAULT).
bool Queue(const char* device, const Buffer& buffer, bool attaches) {
  unique_fd video(open(device, O_RDWR | O_CLOEXEC));
  if (video < 0) return Fail(device);
  v4l2_requestbuffers request{};
  request.count = 1;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_DMABUF;
  if (ioctl(video.get(), VIDIOC_REQBUFS, &request) != 0) return Fail(std::string(device) + ": VIDIOC_REQBUFS");
  v4l2_buffer queued{};
  queued.index = 0;
  queued.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  queued.memory = V4L2_MEMORY_DMABUF;
  queued.m.fd = buffer.fd.get();
  const bool ok = ioctl(video.get(), VIDIOC_QBUF, &queued) == 0 || (attaches && errno == EFAULT);
  if (!ok) Fail(std::string(device) + ": VIDIOC_QBUF");
  request.count = 0;
  if (ioctl(video.get(), VIDIOC_REQBUFS, &request) != 0) return Fail(std::string(device) + ": VIDIOC_REQBUFS 0");
  if (ok) printf("%s %s %d\n", attaches ? "attached" : "vmapped", buffer.name, getpid());
  return ok;
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
  bool hold = false;
  std::string heap, udmabuf;
  std::vector<std::string> cards, vmapDevices, attachDevices;
  auto into = [](std::vector<std::string>* list) {
    return [list](const std::string& value) {
      list->push_back(value);
      return true;
    };
  };
  Tavo::Bpf::TavoOptions options("tavo_dmabuf_exerciser", "[--hold] [--vmap V4L2DEV]... [--attach V4L2DEV]...");
  options.Flag("--hold", &hold, "keep both processes until standard input closes")
      .Value("--vmap", into(&vmapDevices), "V4L2DEV", "a capture device that vmaps imports (repeatable)", "a device")
      .Value("--attach", into(&attachDevices), "V4L2DEV", "a capture device that attaches imports (repeatable)",
             "a device")
      .Text("--heap", &heap, "HEAPDEV", "a dma-buf heap to allocate a buffer from")
      .Text("--udmabuf", &udmabuf, "DEV", "the udmabuf device to make a buffer with")
      .Positionals(&cards, "[CARD]");
  if (const int status = options.ParseOrStatus(argc, argv); status >= 0) return status;
  if (cards.size() > 1) {
    options.PrintUsage(stderr);
    return 2;
  }
  const char* cardPath = cards.empty() ? "/dev/dri/card0" : cards[0].c_str();
  const char* heapPath = heap.empty() ? nullptr : heap.c_str();
  const char* udmabufPath = udmabuf.empty() ? nullptr : udmabuf.c_str();
  std::vector<const char*> vmaps, attaches;
  for (const std::string& d : vmapDevices) vmaps.push_back(d.c_str());
  for (const std::string& d : attachDevices) attaches.push_back(d.c_str());
  setvbuf(stdout, nullptr, _IOLBF, 0);
  unique_fd card(open(cardPath, O_RDWR | O_CLOEXEC));
  if (card < 0) {
    Fail(cardPath);
    return 2;
  }
  // One size for all buffers, enough for a frame of every device.
  uint64_t size = kMinSize;
  for (const auto* devices : {&vmaps, &attaches}) {
    for (const char* device : *devices)
      if (!FrameSize(device, &size)) return 1;
  }
  size = (size + kPage - 1) / kPage * kPage;

  Buffer a("A"), b("B"), h("H"), u("U");
  if (!CreateVgem(card.get(), size, &a) || !CreateVgem(card.get(), size, &b)) return 1;
  if (heapPath != nullptr && !CreateFromHeap(heapPath, size, &h)) return 1;
  if (udmabufPath != nullptr && !CreateUdmabuf(udmabufPath, size, &u)) return 1;
  for (const Buffer* buffer : {&a, &h, &u}) {
    if (buffer->fd < 0) continue;
    if (!MapAndUnmap(buffer->fd.get(), buffer->size, buffer->name)) return 1;
    for (const char* device : vmaps)
      if (!Queue(device, *buffer, false)) return 1;
    for (const char* device : attaches)
      if (!Queue(device, *buffer, true)) return 1;
  }

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
    for (Buffer* buffer : {&a, &b, &h, &u}) buffer->fd.reset();
    card.reset();
    _exit(Receive(theirs.get(), b.size, hold));
  }
  theirs.reset();
  if (android::base::SendFileDescriptors(mine.get(), "b", 1, b.fd.get()) != 1) Fail("sending the dma-buf");
  b.fd.reset();  // the child holds the only descriptor now
  // The child is done with B once it says so (or has gone).
  char done = 0;
  if (read(mine.get(), &done, 1) != 1) Fail("waiting for the child");

  // The GEM handles keep the exported vgem buffers; closing them releases
  // both. H and U go with their descriptors.
  a.fd.reset();
  for (const Buffer* buffer : {&a, &b}) {
    drm_gem_close gemClose{};
    gemClose.handle = buffer->handle;
    if (ioctl(card.get(), DRM_IOCTL_GEM_CLOSE, &gemClose) != 0) Fail("DRM_IOCTL_GEM_CLOSE");
  }
  h.fd.reset();
  u.fd.reset();
  if (hold) Hold();
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
