#include "sync/transport/token_source.hpp"

#include <utility>

namespace brackenfen::sync {
namespace {

class FixedToken : public TokenSource {
 public:
  explicit FixedToken(std::string token) : token_(std::move(token)) {}
  std::string token() override { return token_; }

 private:
  const std::string token_;
};

}  // namespace

std::shared_ptr<TokenSource> fixed_token(std::string token) { return std::make_shared<FixedToken>(std::move(token)); }

}  // namespace brackenfen::sync
