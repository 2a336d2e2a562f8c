// The one command-line parser of the project's programs (the daemon, the
// loader, tavoctl's commands, the host, the matrix's check and exerciser,
// the benchmarks' helpers). Each option is declared once, with its help
// line; Parse() fills the targets and turns unknown options, missing values
// and bad numbers into one line on stderr.
//
//   bool json = false;
//   uint32_t iterations = 0;
//   TavoOptions options("tavoctl top", "[OPTION]...");
//   options.Flag("--json", &json, "one JSON object per frame")
//       .Number("--iterations", &iterations, "N", "stop after N frames", 1u);
//   switch (options.Parse(argc, argv)) { ... }
#pragma once

#include <android-base/parseint.h>

#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace Tavo::Bpf {

class TavoOptions {
 public:
  enum class Result { kOk, kHelp, kError };
  // Takes a value; false rejects it (Parse then fails with the option's
  // `wants` text).
  using Take = std::function<bool(const std::string& value)>;

  // `program` names the program in messages ("tavoctl watch"), `synopsis`
  // follows it on the usage line.
  TavoOptions(std::string program, std::string synopsis);

  TavoOptions& Flag(const std::string& name, bool* target, const std::string& help);
  TavoOptions& Text(const std::string& name, std::string* target, const std::string& metavar,
                    const std::string& help);
  // A value checked by `take`; `wants` completes "NAME wants ..." on error.
  TavoOptions& Value(const std::string& name, Take take, const std::string& metavar, const std::string& help,
                     const std::string& wants);
  // A decimal integer in [min, max] (libbase's parsers).
  template <typename T>
  TavoOptions& Number(const std::string& name, T* target, const std::string& metavar, const std::string& help,
                      T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
    const std::string wants =
        min == 1 && max == std::numeric_limits<T>::max()
            ? "a positive number"
            : "a number from " + std::to_string(min) + " to " + std::to_string(max);
    return Value(name, [=](const std::string& v) { return ParseNumber(v, target, min, max); }, metavar, help, wants);
  }
  // "--prop name=value": sets a system property; repeatable.
  TavoOptions& Properties(const std::string& name = "--prop");
  // Words that are not options, in order; without this they are errors.
  TavoOptions& Positionals(std::vector<std::string>* target, const std::string& synopsis = "");
  // Extra text after the options in --help.
  TavoOptions& Epilog(const std::string& text);

  // argv[first..]: kHelp after printing the help for -h or --help, kError
  // after one line on stderr.
  Result Parse(int argc, char** argv, int first = 1);
  // Parse() for a program's main: -1 to go on, else the exit status (0
  // after --help, 2 after an error).
  int ParseOrStatus(int argc, char** argv, int first = 1);
  void PrintHelp(FILE* out) const;
  void PrintUsage(FILE* out) const;
  const std::string& program() const { return program_; }

 private:
  struct Option {
    std::string name;
    std::string metavar;  // empty: a flag
    std::string help;
    std::string wants;
    Take take;
  };
  template <typename T>
  static bool ParseNumber(const std::string& v, T* target, T min, T max) {
    if (v.empty() || v[0] < '0' || v[0] > '9') {
      if (!(std::numeric_limits<T>::is_signed && v.size() > 1 && v[0] == '-')) return false;
    }
    if constexpr (std::numeric_limits<T>::is_signed) {
      return android::base::ParseInt(v, target, min, max);
    } else {
      return android::base::ParseUint(v, target, max) && *target >= min;
    }
  }

  std::string program_;
  std::string synopsis_;
  std::string epilog_;
  std::vector<Option> options_;
  std::vector<std::string>* positionals_ = nullptr;
};

}  // namespace Tavo::Bpf
