// What the server says of the active era, and the gates that ask it.

#include "sync/base/values/convert.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

class EraConfirmationTest : public testing::Test, protected SyncSetup {};

TEST_F(EraConfirmationTest, theGatesAreStrict) {
  struct Row {
    Reply reply;
    bool allow_closing;
    std::string confirmed;   ///< failure of _confirm_active_era(7); empty for none
    std::string superseded;  ///< failure of _check_transition_superseded(7), or the era that took over
  };
  const std::string unreadable = "EraError: Failed to parse active era response during transition";
  const std::string refused = "EraError: Active era confirmation for era_number=7 returned state=";
  const auto other = [](const std::string& era) {
    return "EraError: Active era_number=" + era + " does not match requested transition era_number=7";
  };
  const auto both = [](const std::string& failure) { return std::pair(failure, failure); };
  const auto row = [](const char* body, bool allow_closing, std::pair<std::string, std::string> verdicts) {
    return Row{{.body = body}, allow_closing, verdicts.first, verdicts.second};
  };
  const Row rows[] = {
      row(R"({"era_number": 7, "state": "active"})", false, both("")),
      row(R"({"era": {"era_number": "7"}, "state": "active"})", false, both("")),
      row(R"({"era": {"era_number": 7, "state": "active"}, "state": "closing"})", false, both("")),
      row(R"({"era": {"era_number": 7, "state": null}, "state": "active"})", false, both(refused + "None")),
      row(R"({"era_number": 7.9, "state": "active"})", false, both("")),
      row(R"({"era_number": 7, "state": "closing"})", false, both(refused + "'closing'")),
      row(R"({"era_number": 7, "state": "closing"})", true, both("")),
      row(R"({"era_number": 7})", true, both(refused + "None")),
      row(R"({"era_number": 7, "state": "it's"})", true, both(refused + "\"it's\"")),
      row(R"({"era_number": 9, "state": "active"})", false, {other("9"), "9"}),
      row(R"({"era_number": 9, "state": "closing"})", true, {other("9"), "9"}),
      row(R"({"era_number": 6, "state": "active"})", false, both(other("6"))),
      row(R"({"era": null, "state": "between_eras"})", true, both(unreadable)),
      row("[]", false, both(unreadable)),
      row("\xff", false, both(unreadable)),
      row("", false, both(unreadable)),
      {{.status = 404}, false, "EraError: Failed to confirm active era: HTTP 404", "EraError: Failed to confirm active era: HTTP 404"},
  };
  const auto manager = open();
  for (const Row& one : rows) {
    SCOPED_TRACE(one.reply.body);
    server.script("/era/current", {one.reply});
    EXPECT_EQ(failure_of([&] { return manager->_confirm_active_era(*neighbours(), 7, one.allow_closing); }), one.confirmed);
    std::optional<Value> superseding;
    const std::string failure = failure_of([&] {
      superseding = manager->_check_transition_superseded(*neighbours(), "7", one.allow_closing);
      return 0;
    });
    EXPECT_EQ(superseding ? to_text(*superseding) : failure, one.superseded);
  }
  server.script("/era/current", {{.body = R"({"era_number": 7, "state": "active", "min_library_version": "1.0"})"}});
  EXPECT_EQ(manager->_confirm_active_era(*neighbours(), 7).get("min_library_version"), Value("1.0"));
  EXPECT_EQ(failure_of([&] { return manager->_confirm_active_era(*neighbours(), "x"); }),
            "ValueError: invalid literal for int() with base 10: 'x'");
}

}  // namespace
}  // namespace brackenfen::sync
