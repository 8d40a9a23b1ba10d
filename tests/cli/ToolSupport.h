// The tool under test run as a subprocess, plain or with --json; its documents read with the
// same JSON library the tool writes them with.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "cli/ProcessSupport.h"

namespace tamrik::test {

using Json = nlohmann::ordered_json;

inline RunResult Tool(std::vector<std::string> args, int timeoutMs = 30000) {
  args.insert(args.begin(), TAMRIK_TOOL);
  return Run(args, timeoutMs);
}

// The tool with --json: the document on stdout, which must parse.
inline Json ToolJson(std::vector<std::string> args, RunResult* run = nullptr) {
  args.insert(args.begin(), "--json");
  RunResult result = Tool(args);
  Json doc = Json::parse(result.out, nullptr, false);
  EXPECT_FALSE(doc.is_discarded()) << result.out << result.err;
  if (run != nullptr) *run = result;
  return doc;
}

// The command line, its status and both outputs, for a failure message.
inline std::string Describe(const std::vector<std::string>& args, const RunResult& r) {
  std::string text = "tamrik";
  for (const auto& a : args) text += " " + a;
  return text + "\nexit " + std::to_string(r.status) + "\n--- stdout\n" + r.out + "--- stderr\n" + r.err;
}

// Members of a document that must be there, of the kind asked for.
inline const Json* Member(const Json& doc, const std::string& key) {
  const bool found = doc.is_object() && doc.contains(key);
  EXPECT_TRUE(found) << key << " in " << doc.dump();
  return found ? &doc[key] : nullptr;
}

inline int64_t Int(const Json& doc, const std::string& key) {
  const Json* v = Member(doc, key);
  EXPECT_TRUE(v == nullptr || v->is_number_integer()) << key << " = " << v->dump();
  return v != nullptr && v->is_number_integer() ? v->get<int64_t>() : -1;
}

inline std::string Text(const Json& doc, const std::string& key) {
  const Json* v = Member(doc, key);
  return v != nullptr && v->is_string() ? v->get<std::string>() : std::string();
}

// A yes-or-no member: true only when it is there and true.
inline bool Flag(const Json& doc, const std::string& key) {
  const Json* v = Member(doc, key);
  return v != nullptr && v->is_boolean() && v->get<bool>();
}

inline std::vector<int64_t> Numbers(const Json& doc, const std::string& key) {
  std::vector<int64_t> out;
  const Json* v = Member(doc, key);
  if (v != nullptr && v->is_array()) {
    for (const Json& item : *v) out.push_back(item.is_number_integer() ? item.get<int64_t>() : -1);
  }
  return out;
}

}  // namespace tamrik::test
