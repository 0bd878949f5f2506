// A running sandbox backend in this process and a client bundle pointing at
// it, in a throw-away home. Each test case runs in its own process, so the
// SDK's singletons are built against this bundle.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "SandboxServer.h"
#include "support/TempEnvironment.h"

namespace velquin::testing {

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes the token file with the sandbox's address, key and CA.
  void writeWorkingTokenFile();
  // Runs configure() and waits until start-up handled the GetAppConfig answer.
  bool configureAndWait(std::chrono::seconds limit = std::chrono::seconds(20));
  // Polls the sandbox until `count` calls of `method` were recorded.
  bool waitForCalls(const std::string& method, size_t count,
                    std::chrono::milliseconds limit = std::chrono::seconds(20));

  // Runs the command-line host over this bundle to completion and returns
  // its last line of output as JSON (discarded when it is not JSON); the
  // exit status goes to `exitStatus` when given.
  nlohmann::json runHost(const std::vector<std::string>& args, int* exitStatus = nullptr);

  virtual sandbox::FaultOptions initialFaults() { return {}; }

  TempEnvironment env;
  std::unique_ptr<sandbox::SandboxServer> server;
};

}  // namespace velquin::testing
