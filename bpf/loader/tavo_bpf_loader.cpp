#include <android-base/file.h>
#include <android-base/parseint.h>

#include "bpf/loader/tavo_bpf_loader.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <errno.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "bpf/tavo_bpf_syscall.h"
#include "util/tavo_log.h"

namespace Tavo::Loader {
namespace {

constexpr const char* kTag = "TavoLoader";

bool gVerbose = false;

// Trial loads of programs this kernel refuses are expected; the skip line
// says enough, so libbpf speaks only when asked to.
int LibbpfPrint(enum libbpf_print_level level, const char* fmt, va_list args) {
  if (!gVerbose || level == LIBBPF_DEBUG) return 0;
  return vfprintf(stderr, fmt, args);
}

struct ObjectCloser {
  void operator()(bpf_object* obj) const { bpf_object__close(obj); }
};
using ObjectPtr = std::unique_ptr<bpf_object, ObjectCloser>;

struct ObjectSpec {
  const char* name;
  uint32_t ringBytes;
};

// Sets a "const volatile" global of the object before load.
bool SetRodataS64(bpf_object* obj, const char* var, int64_t value) {
  const btf* objBtf = bpf_object__btf(obj);
  if (!objBtf) return false;
  bpf_map* rodata = nullptr;
  bpf_map* map;
  bpf_object__for_each_map(map, obj) {
    const char* n = bpf_map__name(map);
    if (bpf_map__is_internal(map) && strstr(n, ".rodata")) rodata = map;
  }
  if (!rodata) return false;
  int secId = btf__find_by_name_kind(objBtf, ".rodata", BTF_KIND_DATASEC);
  if (secId < 0) return false;
  const btf_type* sec = btf__type_by_id(objBtf, secId);
  const btf_var_secinfo* info = btf_var_secinfos(sec);
  size_t size = 0;
  const char* current = static_cast<const char*>(bpf_map__initial_value(rodata, &size));
  if (!current) return false;
  std::vector<char> data(current, current + size);
  for (unsigned i = 0; i < btf_vlen(sec); ++i, ++info) {
    const btf_type* v = btf__type_by_id(objBtf, info->type);
    if (strcmp(btf__name_by_offset(objBtf, v->name_off), var) != 0) continue;
    if (info->size != sizeof(value) || info->offset + sizeof(value) > size) return false;
    memcpy(data.data() + info->offset, &value, sizeof(value));
    return bpf_map__set_initial_value(rodata, data.data(), data.size()) == 0;
  }
  return false;
}

// Opens the object with only the programs in `enabled` set to load
// (all when `enabled` is null) and applies the options.
ObjectPtr OpenObject(const std::string& path, const ObjectSpec& spec, const LoaderOptions& options,
                     const std::set<std::string>* enabled) {
  LIBBPF_OPTS(bpf_object_open_opts, openOpts, .object_name = spec.name);
  ObjectPtr obj(bpf_object__open_file(path.c_str(), &openOpts));
  if (!obj) {
    if (errno == 0) errno = EINVAL;
    return nullptr;
  }
  bpf_program* prog;
  bpf_object__for_each_program(prog, obj.get()) {
    bpf_program__set_autoload(prog, !enabled || enabled->count(bpf_program__name(prog)) != 0);
  }
  if (spec.ringBytes != 0) {
    bpf_map* ring = bpf_object__find_map_by_name(obj.get(), Tavo::Bpf::kRingbufMap);
    if (!ring || bpf_map__set_max_entries(ring, spec.ringBytes) != 0) {
      TAVO_LOGE(kTag, "[TavoLoader] %s: cannot set ring size %u", spec.name, spec.ringBytes);
    }
  }
  if (options.rssStepBytes >= 0 && strcmp(spec.name, kNormalObject) == 0 &&
      !SetRodataS64(obj.get(), "rss_step_bytes", options.rssStepBytes)) {
    TAVO_LOGE(kTag, "[TavoLoader] %s: cannot set rss_step_bytes", spec.name);
  }
  return obj;
}

// The pin type word from the program's section ("tracepoint/sched/x" -> "tracepoint").
std::string TypeWord(bpf_program* prog) {
  std::string section = bpf_program__section_name(prog);
  return section.substr(0, section.find('/'));
}

bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

// Removes every pin of `object` under dir (programs and maps of an earlier run).
int RemoveObjectPins(const std::string& dir, const std::string& object) {
  std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
  if (!d) return -1;
  int removed = 0;
  const std::string progPrefix = "prog_" + object + "_";
  const std::string mapPrefix = "map_" + object + "_";
  while (dirent* e = readdir(d.get())) {
    std::string name = e->d_name;
    if (!StartsWith(name, progPrefix) && !StartsWith(name, mapPrefix)) continue;
    if (unlink((dir + "/" + name).c_str()) == 0) ++removed;
  }
  return removed;
}

int LoadObject(const ObjectSpec& spec, const LoaderOptions& options, LoadReport* report) {
  const std::string dir = options.objectDir.empty() ? DefaultObjectDir() : options.objectDir;
  const std::string path = dir + "/" + spec.name + ".bpf.o";

  ObjectPtr obj = OpenObject(path, spec, options, nullptr);
  if (!obj) {
    TAVO_LOGE(kTag, "[TavoLoader] open %s failed: %s", path.c_str(), strerror(errno));
    return -1;
  }
  if (bpf_object__load(obj.get()) != 0) {
    // Some program is refused by this kernel: try each one alone, then
    // load the object with those that passed.
    std::vector<std::string> names;
    bpf_program* prog;
    bpf_object__for_each_program(prog, obj.get()) names.emplace_back(bpf_program__name(prog));
    obj.reset();
    std::set<std::string> good;
    for (const std::string& name : names) {
      std::set<std::string> one{name};
      ObjectPtr trial = OpenObject(path, spec, options, &one);
      if (trial && bpf_object__load(trial.get()) == 0) {
        good.insert(name);
      } else {
        TAVO_LOGW(kTag, "[TavoLoader] skip %s program %s: does not load on this kernel (%s)", spec.name,
                  name.c_str(), strerror(errno));
        report->skipped.push_back(std::string(spec.name) + "/" + name);
      }
    }
    obj = OpenObject(path, spec, options, &good);
    if (!obj || bpf_object__load(obj.get()) != 0) {
      TAVO_LOGE(kTag, "[TavoLoader] load %s failed: %s", path.c_str(), strerror(errno));
      return -1;
    }
  }

  RemoveObjectPins(options.pinDir, spec.name);
  int failures = 0;
  bpf_program* prog;
  bpf_object__for_each_program(prog, obj.get()) {
    if (!bpf_program__autoload(prog)) continue;
    const std::string pin = Tavo::Bpf::PinnedProgramPath(options.pinDir, spec.name, TypeWord(prog), bpf_program__name(prog));
    if (bpf_program__pin(prog, pin.c_str()) != 0) {
      TAVO_LOGE(kTag, "[TavoLoader] pin %s failed: %s", pin.c_str(), strerror(errno));
      ++failures;
      continue;
    }
    report->pins.push_back(pin);
  }
  bpf_map* map;
  bpf_object__for_each_map(map, obj.get()) {
    if (bpf_map__is_internal(map)) continue;
    const std::string pin = Tavo::Bpf::PinnedMapPath(options.pinDir, spec.name, bpf_map__name(map));
    if (bpf_map__pin(map, pin.c_str()) != 0) {
      TAVO_LOGE(kTag, "[TavoLoader] pin %s failed: %s", pin.c_str(), strerror(errno));
      ++failures;
      continue;
    }
    report->pins.push_back(pin);
  }
  // The ring size is known now; the programs keep the other counters fresh.
  if (bpf_map* status = bpf_object__find_map_by_name(obj.get(), Tavo::Bpf::kRingbufStatusMap)) {
    bpf_map* ring = bpf_object__find_map_by_name(obj.get(), Tavo::Bpf::kRingbufMap);
    uint32_t key = TAVO_STATUS_RING_SIZE;
    uint64_t size = ring ? bpf_map__max_entries(ring) : 0;
    Tavo::Bpf::BpfMapUpdateElem(bpf_map__fd(status), &key, &size, Tavo::Bpf::kBpfAny);
  }
  TAVO_LOGI(kTag, "[TavoLoader] %s loaded from %s", spec.name, path.c_str());
  if (failures != 0) {
    errno = EIO;
    return -1;
  }
  return 0;
}

// Mounts a file system of `type` on `root` unless one of that kind (its
// statfs magic) is there already; an existing mount is left as it is.
int MountUnlessThere(const char* root, const char* type, unsigned long magic, unsigned long flags,
                     const char* data) {
  struct statfs fs {};
  if (statfs(root, &fs) == 0 && static_cast<unsigned long>(fs.f_type) == magic) return 0;
  mkdir(root, 0755);
  if (mount(type, root, type, flags, data) != 0) {
    TAVO_LOGE(kTag, "[TavoLoader] mount %s on %s failed: %s", type, root, strerror(errno));
    return -1;
  }
  TAVO_LOGI(kTag, "[TavoLoader] mounted %s on %s", type, root);
  return 0;
}

}  // namespace

std::string DefaultObjectDir() {
  const char* env = getenv("TAVO_BPF_OBJECT_DIR");
  if (env && *env) return env;
  // The build puts the objects in <build>/bpf/, the programs one or two
  // levels below <build>; a copied tree (a VM image, a device) keeps that shape.
  std::string dir = android::base::GetExecutableDirectory();
  const std::string probe = std::string("/bpf/") + kNormalObject + ".bpf.o";
  for (int up = 0; up < 3; ++up) {
    if (access((dir + probe).c_str(), R_OK) == 0) return dir + "/bpf";
    dir = android::base::Dirname(dir);
  }
  return android::base::GetExecutableDirectory() + "/../bpf";
}

int MountBpfFs() { return MountUnlessThere(kBpfFsRoot, "bpf", BPF_FS_MAGIC, 0, "mode=0700"); }

int MountTraceFs() {
  return MountUnlessThere(kTraceFsRoot, "tracefs", TRACEFS_MAGIC, MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
}

int LoadAndPin(const LoaderOptions& options, LoadReport* report) {
  gVerbose = options.verbose;
  libbpf_set_print(LibbpfPrint);
  if (MountBpfFs() != 0) return -1;
  if (mkdir(options.pinDir.c_str(), 0700) != 0 && errno != EEXIST) {
    TAVO_LOGE(kTag, "[TavoLoader] mkdir %s failed: %s", options.pinDir.c_str(), strerror(errno));
    return -1;
  }
  const ObjectSpec specs[] = {{kNormalObject, options.normalRingBytes}, {kGplObject, options.gplRingBytes}};
  for (const ObjectSpec& spec : specs) {
    if (LoadObject(spec, options, report) != 0) return -1;
  }
  return 0;
}

int RemovePins(const std::vector<std::string>& pins, const std::string& pinDir) {
  int failures = 0;
  for (const std::string& pin : pins) {
    if (unlink(pin.c_str()) != 0 && errno != ENOENT) ++failures;
  }
  rmdir(pinDir.c_str());  // only succeeds when nothing else is pinned there
  return failures;
}

int UnloadAll(const std::string& pinDir) {
  int a = RemoveObjectPins(pinDir, kNormalObject);
  if (a < 0) return -1;
  int b = RemoveObjectPins(pinDir, kGplObject);
  rmdir(pinDir.c_str());
  return a + (b < 0 ? 0 : b);
}

void AddObjectOptions(Tavo::Bpf::TavoOptions* parser, LoaderOptions* options) {
  parser->Text("--obj-dir", &options->objectDir, "DIR", "where the BPF objects are (default: beside the program)")
      .Number("--ring-bytes", &options->normalRingBytes, "N", "the normal object's ring size")
      .Number("--gpl-ring-bytes", &options->gplRingBytes, "N", "the GPL object's ring size")
      .Number("--rss-step", &options->rssStepBytes, "BYTES", "rss_stat change that makes a record", int64_t{1});
}

}  // namespace Tavo::Loader
