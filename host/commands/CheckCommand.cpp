#include "host/commands/CheckCommand.hpp"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <vector>

#include "host/chain/Chain.hpp"
#include "host/chain/ChainFile.hpp"
#include "host/log/HostLog.hpp"
#include "host/program/Complaint.hpp"
#include "host/status/StatusTable.hpp"

namespace host {

namespace {

// Keeps the chains that could be created: some faults show only beside another chain.
bool createAll(const ChainFile& file, StatusTable& status, HostLog& log) {
  std::vector<std::unique_ptr<Chain>> chains;
  for (const ChainDefinition& definition : file.chains) {
    try {
      chains.push_back(std::make_unique<Chain>(definition, status, log));
    } catch (const std::exception& error) {
      complain(error);
    }
  }
  return chains.size() == file.chains.size();
}

}  // namespace

ExitStatus check(const std::string& chainFile) {
  const ChainFile file = readChainFile(chainFile);
  checkFiles(file);
  // Only what is wrong matters here.
  HostLog log(std::min<int>(file.log.level, QOR_LOG_WARN), {});
  StatusTable status;
  if (!createAll(file, status, log)) return ExitStatus::CouldNotRun;
  std::puts("OK");
  return ExitStatus::Success;
}

}  // namespace host
