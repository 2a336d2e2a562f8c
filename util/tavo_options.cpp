#include "util/tavo_options.h"

#include <cstring>

#include "util/tavo_properties.h"

namespace Tavo::Bpf {

TavoOptions::TavoOptions(std::string program, std::string synopsis)
    : program_(std::move(program)), synopsis_(std::move(synopsis)) {}

TavoOptions& TavoOptions::Flag(const std::string& name, bool* target, const std::string& help) {
  options_.push_back({name, "", help, "", [target](const std::string&) {
                        *target = true;
                        return true;
                      }});
  return *this;
}

TavoOptions& TavoOptions::Text(const std::string& name, std::string* target, const std::string& metavar,
                               const std::string& help) {
  return Value(name, [target](const std::string& v) {
    *target = v;
    return true;
  }, metavar, help, "a value");
}

TavoOptions& TavoOptions::Value(const std::string& name, Take take, const std::string& metavar,
                                const std::string& help, const std::string& wants) {
  options_.push_back({name, metavar, help, wants, std::move(take)});
  return *this;
}

TavoOptions& TavoOptions::Properties(const std::string& name) {
  return Value(name, [](const std::string& v) {
    const size_t eq = v.find('=');
    return eq != std::string::npos && eq != 0 && SetServiceProperty(v.substr(0, eq), v.substr(eq + 1));
  }, "NAME=VALUE", "set a system property first (repeatable)", "name=value");
}

TavoOptions& TavoOptions::Positionals(std::vector<std::string>* target, const std::string& synopsis) {
  positionals_ = target;
  if (!synopsis.empty()) synopsis_ += " " + synopsis;
  return *this;
}

TavoOptions& TavoOptions::Epilog(const std::string& text) {
  epilog_ = text;
  return *this;
}

TavoOptions::Result TavoOptions::Parse(int argc, char** argv, int first) {
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      PrintHelp(stdout);
      return Result::kHelp;
    }
    const Option* option = nullptr;
    for (const Option& o : options_) {
      if (o.name == arg) option = &o;
    }
    if (option == nullptr) {
      if (positionals_ != nullptr && (arg.empty() || arg[0] != '-' || arg == "-")) {
        positionals_->push_back(arg);
        continue;
      }
      fprintf(stderr, "%s: unexpected argument '%s'\n", program_.c_str(), arg.c_str());
      PrintUsage(stderr);
      return Result::kError;
    }
    if (option->metavar.empty()) {
      option->take("");
      continue;
    }
    if (i + 1 >= argc || !option->take(argv[i + 1])) {
      fprintf(stderr, "%s: %s wants %s\n", program_.c_str(), arg.c_str(), option->wants.c_str());
      return Result::kError;
    }
    ++i;
  }
  return Result::kOk;
}

int TavoOptions::ParseOrStatus(int argc, char** argv, int first) {
  switch (Parse(argc, argv, first)) {
    case Result::kOk: return -1;
    case Result::kHelp: return 0;
    case Result::kError: break;
  }
  return 2;
}

void TavoOptions::PrintUsage(FILE* out) const {
  fprintf(out, "usage: %s %s\n", program_.c_str(), synopsis_.c_str());
}

void TavoOptions::PrintHelp(FILE* out) const {
  PrintUsage(out);
  if (!options_.empty()) fprintf(out, "\nOptions:\n");
  for (const Option& o : options_) {
    const std::string left = o.name + (o.metavar.empty() ? "" : " " + o.metavar);
    fprintf(out, "  %-22s %s\n", left.c_str(), o.help.c_str());
  }
  if (!epilog_.empty()) fprintf(out, "\n%s", epilog_.c_str());
}

}  // namespace Tavo::Bpf
