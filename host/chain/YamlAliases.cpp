#include "host/chain/YamlAliases.hpp"

#include <sstream>
#include <unordered_map>
#include <vector>

#include <yaml-cpp/eventhandler.h>

namespace host {

namespace {

// Counts the nodes below each anchor, with what aliases among them stand for.
class AliasCounter : public YAML::EventHandler {
 public:
  void OnDocumentStart(const YAML::Mark&) override {}
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark&, YAML::anchor_t anchor) override { addLeaf(anchor); }
  void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t anchor,
                const std::string&) override {
    addLeaf(anchor);
  }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    const auto known = _sizes.find(anchor);
    const std::uint64_t size = known == _sizes.end() ? 0 : known->second;
    _aliased += size;
    if (_aliased > maxAliasedNodes && _excess.is_null()) _excess = mark;
    // Never more than a bit above the limit, so that nothing overflows.
    add(_excess.is_null() ? size : 0);
  }
  void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value) override {
    begin(anchor);
  }
  void OnSequenceEnd() override { end(); }
  void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value) override {
    begin(anchor);
  }
  void OnMapEnd() override { end(); }

  const YAML::Mark& excess() const { return _excess; }

 private:
  struct Container {
    YAML::anchor_t anchor;  // 0: none
    std::uint64_t size;
  };

  void add(std::uint64_t size) {
    if (!_open.empty()) _open.back().size += size;
  }
  void addLeaf(YAML::anchor_t anchor) {
    if (anchor != 0) _sizes[anchor] = 1;
    add(1);
  }
  void begin(YAML::anchor_t anchor) { _open.push_back({anchor, 1}); }
  void end() {
    const Container ended = _open.back();
    _open.pop_back();
    if (ended.anchor != 0) _sizes[ended.anchor] = ended.size;
    add(ended.size);
  }

  std::unordered_map<YAML::anchor_t, std::uint64_t> _sizes;
  std::vector<Container> _open;
  std::uint64_t _aliased = 0;
  YAML::Mark _excess = YAML::Mark::null_mark();
};

}  // namespace

YAML::Mark excessiveAlias(const std::string& text) {
  std::istringstream stream(text);
  YAML::Parser parser(stream);
  AliasCounter counter;
  while (parser.HandleNextDocument(counter)) {
  }
  return counter.excess();
}

}  // namespace host
