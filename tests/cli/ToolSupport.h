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

// The command line, its status and both outputs, for a failure message.
inline std::string Describe(const std::vector<std::string>& args, const RunResult& r) {
  std::string text = "tamrik";
  for (const auto& a : args) text += " " + a;
  return text + "\nexit " + std::to_string(r.status) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

// Members of a document that must be there.
inline int64_t Int(const cli::Json& doc, const std::string& key) {
  const cli::Json* v = doc.Find(key);
  EXPECT_NE(v, nullptr) << key;
  return v != nullptr ? v->AsInt() : -1;
}

inline std::string Text(const cli::Json& doc, const std::string& key) {
  const cli::Json* v = doc.Find(key);
  EXPECT_NE(v, nullptr) << key;
  return v != nullptr && v->kind() == cli::Json::Kind::String ? v->AsString() : std::string();
}

inline std::vector<int64_t> Numbers(const cli::Json& doc, const std::string& key) {
  std::vector<int64_t> out;
  const cli::Json* v = doc.Find(key);
  EXPECT_NE(v, nullptr) << key;
  if (v != nullptr) {
    for (size_t i = 0; i < v->Size(); ++i) out.push_back((*v)[i].AsInt());
  }
  return out;
}

}  // namespace tamrik::test
