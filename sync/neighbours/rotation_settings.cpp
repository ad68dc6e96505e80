#include "sync/neighbours/rotation_settings.hpp"

#include <cstdint>
#include <optional>
#include <random>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* DEFAULT_FREQUENCY = "weekly";
constexpr const char* DEFAULT_ALGORITHM = "seeded-hash";
constexpr std::int64_t MOST_GIGABYTES = std::int64_t{1} << 33;  // of 2^30 bytes each: no file system counts more
constexpr const char* KEYS[] = {"feature_budget_gb", "algorithm", "rotation_seed", "market",
                                "named_universes",   "family",    "subfamily",     "rotation_frequency"};

bool is_integer(const Value& value) { return value.is_integer(); }

bool is_size(const Value& value) {
  if (is_integer(value)) return compare_integers(value, 0) >= 0 && compare_integers(value, MOST_GIGABYTES) <= 0;
  const auto real = value.if_real();
  return is_full_download(value) || (real && *real >= 0 && *real <= static_cast<double>(MOST_GIGABYTES));
}

/// Blanks around it would match nothing: what artifacts say is stripped.
bool is_name(const Value& value) {
  const std::string_view name = stripped_text(value);
  return !name.empty() && name == value.if_text();
}

bool is_list_of_names(const Value& value) {
  const List* names = value.if_list();
  if (names == nullptr || names->empty()) return false;
  for (const Value& name : *names) {
    if (!is_name(name)) return false;
  }
  return true;
}

/// "weekly" or "PT{n}H" with n above 0: the periods that the library understands.
bool is_frequency(const Value& value) {
  const std::string_view text = stripped_text(value);
  if (text == "weekly") return true;
  if (!text.starts_with("PT") || !text.ends_with("H")) return false;
  const std::string_view digits = text.substr(2, text.size() - 3);
  return !digits.empty() && digits.size() < 7 && digits.find_first_not_of("0123456789") == std::string_view::npos &&
         digits.find_first_not_of('0') != std::string_view::npos;
}

/// One settings file. A key that is absent or null leaves its default.
class SettingsFile {
 public:
  SettingsFile(std::string path, Document members) : path_(std::move(path)), members_(std::move(members)) {
    for (const Member& member : members_) {
      if (std::find(std::begin(KEYS), std::end(KEYS), member.key.view()) == std::end(KEYS)) {
        throw ValueError(path_ + ": unknown key " + to_quoted(member.key.view()));
      }
    }
  }

  /// The value of `key`, or `otherwise`. Throws ValueError where it fails `test`.
  Value value(const char* key, bool (*test)(const Value&), const char* expected, Value otherwise) const {
    const Value& stated = members_.get(key);
    if (stated.is_null()) return otherwise;
    if (!test(stated)) throw ValueError(path_ + ": " + key + " must be " + expected + ", not " + to_quoted(stated));
    return stated;
  }

 private:
  const std::string path_;
  const Document members_;
};

Document members_of(const std::string& path) {
  if (!path_exists(path)) return {};
  Value parsed;
  try {
    parsed = parse_json(read_file(path));
  } catch (const Error& error) {
    if (error.is(error_class::OSError)) throw;
    throw ValueError(path + ": " + error.text());
  }
  const Document* members = parsed.if_document();
  if (members == nullptr) throw ValueError(path + ": it must hold a JSON object, not " + std::string(type_name(parsed)));
  return *members;
}

class BuiltinRotationSettings final : public RotationSettings {
 public:
  LoadedRotationSettings load_rotation_settings(const std::string& data_dir, const Document& catalog_context,
                                                const Value& stored_seed) const override {
    const std::string path = join_path(data_dir, FEATURE_ROTATION_SETTINGS_FILENAME);
    const SettingsFile file(path, members_of(path));
    const auto name = [&](const char* key, const Value& otherwise) {
      return file.value(key, is_name, "a text without blanks around it", otherwise);
    };
    LoadedRotationSettings settings;
    settings.feature_budget_gb = file.value("feature_budget_gb", is_size, "a number of gigabytes from 0 to 2^33, or \"FULL_DOWNLOAD\"", {});
    settings.algorithm = name("algorithm", DEFAULT_ALGORITHM);
    if (settings.algorithm != Value(DEFAULT_ALGORITHM)) {
      throw ValueError(path + ": algorithm must be " + to_quoted(DEFAULT_ALGORITHM) + ", not " + to_quoted(settings.algorithm));
    }
    settings.rotation_seed = file.value("rotation_seed", is_integer, "an integer", stored_seed);
    if (settings.rotation_seed.is_null()) settings.rotation_seed = random_rotation_seed();
    const Value& market = catalog_context.get("market");
    settings.market = name("market", market.truthy() ? market : Value());
    settings.named_universes = file.value("named_universes", is_list_of_names, "a list of texts without blanks around them",
                                          catalog_context.get("named_universes"));
    settings.family = name("family", {});
    settings.subfamily = name("subfamily", {});
    settings.rotation_frequency = file.value("rotation_frequency", is_frequency, "\"weekly\" or \"PT{hours}H\"", Value(DEFAULT_FREQUENCY));
    return settings;
  }

  Value model_dump(const LoadedRotationSettings& settings) const override {
    return Document{{"feature_budget_gb", settings.feature_budget_gb},
                    {"algorithm", settings.algorithm},
                    {"rotation_seed", settings.rotation_seed},
                    {"market", settings.market},
                    {"named_universes", settings.named_universes},
                    {"family", settings.family},
                    {"subfamily", settings.subfamily},
                    {"rotation_frequency", settings.rotation_frequency}};
  }
};

}  // namespace

Value random_rotation_seed() {
  std::random_device device;
  return (std::uint64_t{device()} << 32) | device();
}

const RotationSettings& RotationSettings::builtin() {
  static const RotationSettings& settings = *new BuiltinRotationSettings;
  return settings;
}

}  // namespace brackenfen::sync
