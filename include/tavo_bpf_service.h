// The monitoring service a host process runs. Obtain it with GetInstance()
// (after BpfServiceMain() has started it) and park a thread in Wait().
#pragma once

#include <memory>

#define TAVO_BPF_SERVICE_EXPORT __attribute__((visibility("default")))

namespace Tavo::Bpf {

struct TavoServiceOptions;

class TavoBpfService {
 public:
  // The process's service; created on first use and never destroyed.
  TAVO_BPF_SERVICE_EXPORT static TavoBpfService* GetInstance();

  // Starts the producer threads; 1.
  TAVO_BPF_SERVICE_EXPORT int start();
  // Stops the socket server and the pumps; 0.
  TAVO_BPF_SERVICE_EXPORT int stop();
  // Supervises the producer threads until stop(), then joins them; 0.
  TAVO_BPF_SERVICE_EXPORT int Wait();
  // Switch the core (process life cycle) or the normal programs of ring
  // 0 (normal) or 1 (GPL) on or off; false for another ring or a failed
  // update of the ring's status map.
  TAVO_BPF_SERVICE_EXPORT bool enableCoreBpf(int ring, bool enable);
  TAVO_BPF_SERVICE_EXPORT bool enableNormalBpf(int ring, bool enable);

  // A service of its own, outside the singleton (tests and tools in this
  // tree; not exported).
  static std::unique_ptr<TavoBpfService> Create(const TavoServiceOptions& options);
  ~TavoBpfService();
  TavoBpfService(const TavoBpfService&) = delete;
  TavoBpfService& operator=(const TavoBpfService&) = delete;

  // The wired parts; defined by the service.
  struct Parts;
  Parts& parts() { return *parts_; }

 private:
  // Only the class itself can name it, so only GetInstance() and Create()
  // can build a service.
  struct Passkey {
    explicit Passkey() = default;
  };

 public:
  TavoBpfService(Passkey, const TavoServiceOptions& options);

 private:
  int eventProduceThread();
  int gpleventProduceThread();

  std::unique_ptr<Parts> parts_;
};

}  // namespace Tavo::Bpf
