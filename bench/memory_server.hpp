// A server that answers from memory: the network is no part of what is measured with it.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/http_client.hpp"

namespace brackenfen::sync::bench {

class MemoryServer : public HttpClient {
 public:
  /// A manager of that directory, which this server must outlive.
  std::shared_ptr<SyncManager> manager_of(const std::string& directory) {
    Seams seams = Seams::real();
    seams.http = this;
    return std::make_shared<SyncManager>(SyncManager::Options{.data_dir = directory,
                                                              .server_url = "http://127.0.0.1",
                                                              .get_token = fixed_token("t"),
                                                              .runtime_freshness_guard = nullptr,
                                                              .seams = seams});
  }
  void publish(const Document& manifest) {
    manifest_ = write_json(Value(manifest), JsonForm::InsertionOrder);
    version_ = R"({"version": )" + to_text(manifest.get("version")) + R"(, "era_number": 12})";
  }
  /// From now on until the next publication no version is told, so that every pass reads the manifest.
  void hide_version() { version_ = "{}"; }
  std::unique_ptr<HttpResponse> open(const HttpRequest& request, double, const TransportSecurity&) override {
    if (request.url.ends_with("/era/current")) return std::make_unique<Response>(R"({"era_number": 12, "state": "active"})");
    if (request.url.ends_with("/data/shuffle")) return std::make_unique<Response>(seed_, Headers{{"X-Era-Id", "12"}});
    return std::make_unique<Response>(request.url.ends_with("/version") ? version_ : manifest_);
  }

 private:
  class Response : public HttpResponse {
   public:
    explicit Response(std::string_view body, Headers headers = {}) : body_(body), headers_(std::move(headers)) {}
    int status() const override { return 200; }
    const Headers& headers() const override { return headers_; }
    void read_body(BodySink& sink, std::optional<double>, std::uint64_t limit) override {
      sink.accept(body_.substr(0, std::min<std::uint64_t>(body_.size(), limit)));
    }

   private:
    std::string_view body_;
    Headers headers_;
  };

  std::string manifest_, version_;
  const std::string seed_ = std::string(60, 's');
};

}  // namespace brackenfen::sync::bench
