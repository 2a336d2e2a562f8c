// Turning attach-table rows into live kernel attachments.
#pragma once

#include <string>

#include "service/tavo_bpf_service.h"

namespace Tavo::Bpf {

int convertVersionToInt(const std::string& version);
bool CheckBpfCompatibility(const std::string& kernelCompat);
bool IsBpfProg(std::string& name);
int RetrieveProgramFd(const std::string& dir, const std::string& fileName);
int RetrieveProgramFd(const std::string& dir, const std::string& objName,
                      const std::string& progType, const std::string& progName);
int AttachTracepointProgram(const std::string& dir, const std::string& objName,
                            const std::string& progName, const std::string& subSystem,
                            const std::string& eventName);
int AttachTracepointProgram(const std::string& dir, const std::string& fileName,
                            const std::string& subSystem, const std::string& eventName);
int AttachTracepointProgram(const std::string& dir, const std::string& objName,
                            const std::string& progName);
int AttachKProbeProgram(const std::string& dir, const std::string& objName,
                        const std::string& progName, const std::string& functionName,
                        bool isEntry);
int AttachKProbeProgram(const std::string& dir, const std::string& objName,
                        const std::string& progName);
int AttachAllTavoBpfProgram(const std::string& dir, const BpfAttachTable& table);
int AttachAllTavoBpfProgram(const std::string& dir);

}  // namespace Tavo::Bpf
