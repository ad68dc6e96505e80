#include "tools/distribution/sample_plan.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <map>
#include <numeric>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/values/value.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/neighbours/era_config.hpp"
#include "tools/distribution/generator.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::array<std::string_view, 8> FAMILIES = {"momentum", "reversal", "value", "quality", "volume", "volatility", "carry", "flow"};
constexpr std::array<std::string_view, 5> SUBFAMILIES = {"close", "open", "range", "turnover", "spread"};
constexpr std::array<std::string_view, 4> POOLS = {"alpha", "beta", "gamma", "delta"};
constexpr std::uint64_t FEATURES_PER_FAMILY = 4;
constexpr std::int64_t LEAST_ARTIFACT_BYTES = 256;
constexpr unsigned SIZE_DOUBLINGS = 7;         // the largest artifact is about 128 times the smallest
constexpr std::uint64_t REPLACED_PERCENT = 5;  // of the artifacts, from one era to the next

/// One entity of a membership section: its id, pool and files.
struct Entity {
  std::string id;
  std::string pool;
  std::vector<std::string> files;
};

class Planner {
 public:
  Planner(const SampleOptions& options, std::int64_t era) : options_(options), era_(era), epochs_(EraConfig::builtin().epoch_names()) {}

  SamplePlan run() {
    const auto documents = static_cast<std::int64_t>(options_.universes.size()) + 2;
    const std::int64_t artifacts = options_.files - documents;
    if (options_.universes.empty()) throw ValueError("a sample needs at least one universe");
    if (artifacts < 1) throw ValueError(fmt::format("{} files are too few: {} of them are documents", options_.files, documents));
    const std::int64_t found_signals = artifacts * 15 / 100;
    const std::int64_t found_strategies = artifacts * 8 / 100;
    const std::int64_t useful_signals = artifacts * 7 / 100;
    add_entities("found_signals", found_signals, {epochs_.signal_is});
    add_entities("found_strategies", found_strategies, {epochs_.strategy_is});
    add_entities("useful_signals", useful_signals, {epochs_.signal_os, epochs_.strategy_is});
    add_features(artifacts - found_signals - found_strategies - useful_signals);
    add_documents();
    share_out_bytes();
    add_shuffle_seed();
    return std::move(plan_);
  }

 private:
  /// How often the artifact in this place has been replaced up to the planned era.
  [[nodiscard]] std::uint64_t replacements(std::string_view place) const {
    std::uint64_t count = 0;
    for (std::int64_t era = options_.first_era + 1; era <= era_; ++era) {
      if (mix(mix(options_.seed, place) + static_cast<std::uint64_t>(era)) % 100 < REPLACED_PERCENT) ++count;
    }
    return count;
  }

  /// The size follows from the place, which keeps it through replacements.
  void add_artifact(const std::string& path, std::string_view place, std::uint64_t generation) {
    plan_.artifacts.push_back({path, mix(mix(options_.seed, path) + generation), 0});
    Generator generator(mix(options_.seed, place));
    const std::uint64_t doublings = generator.below(SIZE_DOUBLINGS);
    weights_.push_back((1024 + generator.below(1024)) << doublings);
  }

  void add_entities(std::string_view section, std::int64_t files, const std::vector<std::string>& epochs) {
    std::vector<Entity>& entities = sections_[std::string(section)];
    for (std::int64_t index = 0; files > 0; ++index) {
      const std::string place = fmt::format("{}/{}", section, index);
      const std::uint64_t identity = mix(mix(options_.seed, place) ^ mix(replacements(place)));
      Entity entity{fmt::format("{:016x}", identity), std::string(POOLS[identity % POOLS.size()]), {}};
      for (const std::string& epoch : epochs) {
        if (files == 0) break;
        entity.files.push_back(fmt::format("{}/{}/{}/{}/pnl.arrow", section, entity.pool, entity.id, epoch));
        add_artifact(entity.files.back(), fmt::format("{}/{}", place, epoch), 0);
        --files;
      }
      entities.push_back(std::move(entity));
    }
  }

  /// Features go round the universes and epochs; FEATURES_PER_FAMILY of them in one folder are companions.
  void add_features(std::int64_t count) {
    const std::array<std::string, 2> epochs = {epochs_.signal_is, epochs_.strategy_is};
    const std::uint64_t folders = options_.universes.size() * epochs.size();
    for (std::uint64_t index = 0; index < static_cast<std::uint64_t>(count); ++index) {
      const std::string& universe = options_.universes[index % options_.universes.size()];
      const std::string& epoch = epochs[index / options_.universes.size() % epochs.size()];
      const std::uint64_t position = index / folders;
      const std::uint64_t group = position / FEATURES_PER_FAMILY;
      const std::string name =
          fmt::format("{}__{}__w{:03}__z{}", FAMILIES[group % FAMILIES.size()], SUBFAMILIES[group / FAMILIES.size() % SUBFAMILIES.size()],
                      5 + 5 * (group / (FAMILIES.size() * SUBFAMILIES.size())), position % FEATURES_PER_FAMILY);
      const std::string path = fmt::format("features/{}/{}/{}.arrow", universe, epoch, name);
      add_artifact(path, path, replacements(path));
      if (epoch == epochs.front()) features_[universe].push_back(name);
    }
  }

  void add_document(const std::string& path, const Document& document) {
    plan_.documents.push_back({path, write_json(document, JsonForm::InsertionOrder)});
  }

  void add_documents() {
    std::vector<Member> index{{"era_number", era_}};
    for (const std::string_view section : SIGNALS_INDEX_SECTIONS) {
      std::vector<Member> entries;
      for (const Entity& entity : sections_[std::string(section)]) {
        entries.push_back(
            {entity.id, Document{{"pool", entity.pool}, {"files", List(std::vector<Value>(entity.files.begin(), entity.files.end()))}}});
      }
      index.push_back({section, Document(std::move(entries))});
    }
    add_document(std::string(SIGNALS_INDEX_RELATIVE_PATH), Document(std::move(index)));
    add_document(std::string(FUNCTIONS_NAME), functions());
    for (const std::string& universe : options_.universes) {
      add_document(fmt::format("named_universes/{}/vocabulary.json", universe), vocabulary(universe));
    }
  }

  [[nodiscard]] Document vocabulary(const std::string& universe) const {
    std::vector<Member> features;
    if (const auto found = features_.find(universe); found != features_.end()) {
      for (const std::string& name : found->second) {
        features.push_back({name, Document{{"family", std::string_view(name).substr(0, name.find("__"))}}});
      }
    }
    const auto instruments = static_cast<std::int64_t>(100 + mix(options_.seed, universe) % 1900);
    const Document metadata{{"named_universe", universe},
                            {"t_signal_is", 2520 + 63 * (era_ - options_.first_era)},
                            {"t_strategy_is", 1260},
                            {"n_instruments", instruments}};
    return Document{
        {"era_number", era_}, {"named_universe", universe}, {"metadata", metadata}, {"features", Document(std::move(features))}};
  }

  [[nodiscard]] Document functions() const {
    const auto section = [](std::initializer_list<const char*> names) {
      std::vector<Value> entries;
      for (const char* name : names) entries.emplace_back(Document{{"name", name}});
      return List(std::move(entries));
    };
    return Document{{"era_number", era_},
                    {"rotations", section({"rot_weekly", "rot_monthly"})},
                    {"filtrations", section({"flt_liquid", "flt_listed"})},
                    {"reductions", section({"red_mean", "red_rank"})},
                    {"aggregations", section({"agg_sum", "agg_weighted"})},
                    {"functions", section({"fn_delay", "fn_zscore", "fn_decay"})}};
  }

  /// Sizes are spread evenly over their logarithm and add up to the bytes asked for; documents come on top.
  void share_out_bytes() {
    const std::uint64_t total = std::accumulate(weights_.begin(), weights_.end(), std::uint64_t{0});
    const double scale = static_cast<double>(options_.bytes) / static_cast<double>(total);
    for (std::size_t i = 0; i < weights_.size(); ++i) {
      plan_.artifacts[i].size_bytes = std::max(LEAST_ARTIFACT_BYTES, static_cast<std::int64_t>(scale * static_cast<double>(weights_[i])));
    }
  }

  void add_shuffle_seed() {
    plan_.shuffle_seed.resize(SHUFFLE_SEED_BYTES);
    Generator(mix(options_.seed, fmt::format("shuffle seed {}", era_))).fill(plan_.shuffle_seed.data(), plan_.shuffle_seed.size());
  }

  const SampleOptions& options_;
  const std::int64_t era_;
  const EpochNames& epochs_;
  SamplePlan plan_;
  std::vector<std::uint64_t> weights_;  ///< of the artifacts, in their order
  std::map<std::string, std::vector<Entity>> sections_;
  std::map<std::string, std::vector<std::string>> features_;
};

}  // namespace

SamplePlan plan_sample(const SampleOptions& options, std::int64_t era) { return Planner(options, era).run(); }

}  // namespace brackenfen::sync::distribution
