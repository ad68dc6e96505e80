#include "sync/neighbours/reason_descriptions.hpp"

namespace brackenfen::sync {
namespace {

struct Action {
  const char* name;
  const char* sentence;
  const char* what_to_do;
};

constexpr Action ACTIONS[] = {
    {"retry_later", "The data server cannot be reached or cannot answer at the moment.",
     "nothing needs to be done, the request is repeated until the server is back"},
    {"reauthenticate", "The data server does not accept the credentials of this client.", "sign in again or renew the token"},
    {"contact_brackenfen", "The data server is not set up to answer this request, and waiting alone will not change that.",
     "tell BrackenFen, with this message"},
};

class BuiltinReasonDescriptions final : public ReasonDescriptions {
 public:
  ReasonDescription describe_reason(std::string_view, std::string_view recovery, const Value&, const Value&, const Value&) const override {
    const Action* described = &ACTIONS[0];
    for (const Action& action : ACTIONS) {
      if (recovery == action.name) described = &action;
    }
    const std::string name = described->name;
    return {std::string(described->sentence) + " Action: " + name + " (" + described->what_to_do + ").", name};
  }
};

}  // namespace

const ReasonDescriptions& ReasonDescriptions::builtin() {
  static const ReasonDescriptions& descriptions = *new BuiltinReasonDescriptions;
  return descriptions;
}

}  // namespace brackenfen::sync
