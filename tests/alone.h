// Several old releases at once against each of them alone: the checker is to
// give every finding as the single runs give it, with the releases it comes
// from, and every product text under every setting the course each release
// alone gives it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

// |all| is the JSON report with every release; |alone| the reports with each
// one alone, in the same order; |whole|: the findings' messages are compared
// too. Where the releases test properties that a release alone does not, its
// settings are those of |all| that leave them unset, and the findings are not
// compared; a product text only the others name is not either.
inline void expect_each_as_alone(const nlohmann::json& all, const std::vector<nlohmann::json>& alone,
                                 bool whole) {
  using nlohmann::json;
  ASSERT_TRUE(all.is_object());
  // A finding as a single run says it: without the releases it comes from;
  // or only what it is about, where the releases' product texts and trees
  // differ (one finding gathers them from all the releases that give it).
  const auto alone_words = [&](const json& f) {
    std::string message = f["message"];
    const size_t from = message.rfind("; from ");
    if (from != std::string::npos) message = message.substr(0, from) + ")";
    return std::string(f["code"]) + " " + std::string(f["subject"]) + (whole ? ": " + message : "");
  };
  std::map<std::string, std::set<size_t>> found;  // finding -> releases
  for (const json& f : all["findings"]) {
    const std::set<size_t> from = f["releases"];
    const auto [it, added] = found.emplace(alone_words(f), from);
    EXPECT_TRUE(added || !whole) << "given twice: " << f.dump();
    it->second.insert(from.begin(), from.end());
  }
  std::map<std::string, std::set<size_t>> expected;
  bool same_settings = true;
  size_t compared = 0;  // product texts under settings whose courses were compared
  for (size_t k = 0; k < alone.size(); ++k) {
    SCOPED_TRACE("release " + std::to_string(k));
    ASSERT_TRUE(alone[k].is_object());
    same_settings = same_settings && alone[k]["settings"] == all["settings"];
    for (const json& f : alone[k]["findings"]) {
      std::set<size_t>& from = expected[alone_words(f)];
      if (!f["releases"].empty()) from.insert(k);
    }
    // Each setting of |all| as the release alone has it, if it does.
    std::map<size_t, size_t> setting_alone;
    for (size_t s = 0; s < all["settings"].size(); ++s) {
      json own = json::object();
      bool unset_elsewhere = true;
      for (const auto& [name, value] : all["settings"][s].items()) {
        const bool tested = alone[k]["settings"].empty() || alone[k]["settings"][0].contains(name);
        if (tested) own[name] = value;
        unset_elsewhere = unset_elsewhere && (tested || value.is_null());
      }
      for (size_t a = 0; unset_elsewhere && a < alone[k]["settings"].size(); ++a) {
        if (alone[k]["settings"][a] == own) setting_alone[s] = a;
      }
    }
    for (const json& row : all["rows"]) {
      ASSERT_EQ(row["update"].size(), alone.size());
      for (const json& product : row["products"]) {
        for (const json& setting : row["settings"]) {
          if (setting_alone.count(setting) == 0) continue;
          const json* same = nullptr;
          for (const json& r : alone[k]["rows"]) {
            const auto& p = r["products"];
            const auto& s = r["settings"];
            if (std::find(p.begin(), p.end(), product) != p.end() &&
                std::find(s.begin(), s.end(), setting_alone[setting]) != s.end()) {
              same = &r;
            }
          }
          if (same == nullptr) {  // a product text of another release
            EXPECT_FALSE(whole) << product << " is missing from release " << k << " alone";
            continue;
          }
          ++compared;
          for (const char* course : {"update", "rollback"}) {
            if (!row.contains(course) || row[course].empty()) continue;
            json mine = row[course][k], its = (*same)[course][0];
            EXPECT_EQ(mine["release"], k);
            mine.erase("release");
            its.erase("release");
            EXPECT_EQ(mine, its) << course << " of " << product << " under setting " << setting;
          }
        }
      }
    }
  }
  EXPECT_GT(compared, 0u) << "no course was compared";
  if (!same_settings) return;
  for (const auto& [finding, from] : found) {
    const auto it = expected.find(finding);
    EXPECT_TRUE(it != expected.end() && it->second == from) << "not as alone: " << finding;
  }
  for (const auto& [finding, from] : expected) EXPECT_EQ(found.count(finding), 1u) << "missing: " << finding;
}
