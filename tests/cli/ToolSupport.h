// The tool under test run as a subprocess, plain or with --json.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Json.h"
#include "cli/ProcessSupport.h"

namespace tamrik::test {

inline RunResult Tool(std::vector<std::string> args, int timeoutMs = 30000) {
  args.insert(args.begin(), TAMRIK_TOOL);
  return Run(args, timeoutMs);
}

// The tool with --json: the document on stdout, which must parse.
inline cli::Json ToolJson(std::vector<std::string> args, RunResult* run = nullptr) {
  args.insert(args.begin(), "--json");
  RunResult result = Tool(args);
  cli::Json doc;
  std::string error;
  EXPECT_TRUE(cli::ParseJson(result.out, &doc, &error)) << error << "\n" << result.out << result.err;
  if (run != nullptr) *run = result;
  return doc;
}

}  // namespace tamrik::test
