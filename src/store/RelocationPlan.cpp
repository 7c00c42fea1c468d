#include "store/RelocationPlan.h"

#include <algorithm>
#include <iterator>
#include <map>

namespace Tarn {
namespace {

// Most entries a window may hold, and most windows tried for one entry.
constexpr size_t kWindowItems = 8;
constexpr size_t kWindowsTried = 8;

}  // namespace

class RelocationPlan::Planner {
 public:
  Planner(const std::vector<Item>& items, uint32_t fixedEnd, FreeSpace& free, uint64_t maxBytes)
      : items_(items),
        fixedEnd_(fixedEnd),
        free_(free),
        maxBytes_(maxBytes),
        planned_(items.size()),
        moved_(items.size(), false) {
    for (size_t i = 0; i < items.size(); ++i) {
      planned_[i] = items[i].range;
      layout_.emplace(items[i].range.offset, i);
    }
  }

  RelocationPlan run() {
    while (!layout_.empty()) {
      const size_t last = std::prev(layout_.end())->second;
      const FileRange at = planned_[last];
      const uint32_t length = items_[last].range.length;
      if (at.end() <= fixedEnd_ || (!moved_[last] && plan_.bytes_ + length > maxBytes_)) break;
      if (const auto hole = free_.takeBelow(at.offset, length)) {
        move(last, *hole);
        continue;
      }
      if (!moved_[last]) plan_.clearsRoom_ = clearRoom(at.offset, length);
      break;
    }
    finish();
    return std::move(plan_);
  }

 private:
  struct Window {
    uint64_t cost = 0;
    std::vector<size_t> items;
    std::vector<uint32_t> freeOffsets;
  };

  void move(size_t index, FileRange to) {
    const FileRange at = planned_[index];
    if (moved_[index]) {
      free_.add(at.offset, at.length);  // the range it passed through
    } else {
      plan_.bytes_ += items_[index].range.length;
      moved_[index] = true;
    }
    layout_.erase(at.offset);
    layout_.emplace(to.offset, index);
    planned_[index] = to;
  }

  // Moves out the entries of the cheapest window below `bound` that is at
  // least `length` long and whose entries fit elsewhere below `bound`.
  bool clearRoom(uint32_t bound, uint32_t length) {
    const std::vector<FileRange> free = free_.ranges();
    std::vector<Window> windows;
    for (const FileRange& range : free) {
      if (range.end() > bound) break;
      Window window;
      if (scan(free, range, bound, length, window)) windows.push_back(std::move(window));
    }
    std::sort(windows.begin(), windows.end(),
              [](const Window& a, const Window& b) { return a.cost < b.cost; });
    for (size_t i = 0; i < std::min(windows.size(), kWindowsTried); ++i) {
      if (plan_.bytes_ + windows[i].cost > maxBytes_) break;
      if (empty(windows[i], bound)) return true;
    }
    return false;
  }

  // Builds the window that starts with the free range `first`: the entries
  // and free ranges directly behind it until it is `length` long. False when
  // something else comes first (a fixed structure, a range a move leaves,
  // an entry already moved) or the window reaches `bound`.
  bool scan(const std::vector<FileRange>& free, FileRange first, uint32_t bound, uint32_t length,
            Window& window) const {
    uint64_t end = first.end();
    window.freeOffsets.push_back(first.offset);
    while (end - first.offset < length) {
      if (end >= bound) return false;
      const auto item = layout_.find(static_cast<uint32_t>(end));
      if (item != layout_.end()) {
        if (moved_[item->second] || window.items.size() == kWindowItems) return false;
        window.items.push_back(item->second);
        window.cost += planned_[item->second].length;
        end = planned_[item->second].end();
        continue;
      }
      const auto next = std::lower_bound(
          free.begin(), free.end(), end,
          [](const FileRange& range, uint64_t offset) { return range.offset < offset; });
      if (next == free.end() || next->offset != end) return false;
      window.freeOffsets.push_back(next->offset);
      end = next->end();
    }
    return end <= bound && !window.items.empty();
  }

  // Moves the window's entries into free ranges outside it, below `bound`;
  // false (and nothing changed) when one does not fit.
  bool empty(const Window& window, uint32_t bound) {
    std::vector<FileRange> taken;
    for (const uint32_t offset : window.freeOffsets) taken.push_back(*free_.takeAt(offset));
    std::vector<std::pair<size_t, FileRange>> moves;
    for (const size_t index : window.items) {
      const auto hole = free_.takeBelow(bound, items_[index].range.length);
      if (!hole) break;
      moves.emplace_back(index, *hole);
    }
    for (const FileRange& range : taken) free_.add(range.offset, range.length);
    if (moves.size() < window.items.size()) {
      for (const auto& [index, hole] : moves) free_.add(hole.offset, hole.length);
      return false;
    }
    for (const auto& [index, hole] : moves) move(index, hole);
    return true;
  }

  void finish() {
    plan_.endAfter_ = fixedEnd_;
    for (const auto& [offset, index] : layout_) {
      plan_.endAfter_ = std::max<uint64_t>(plan_.endAfter_, planned_[index].end());
    }
    for (size_t i = 0; i < items_.size(); ++i) {
      if (moved_[i]) plan_.moves_.push_back({items_[i].id, items_[i].range, planned_[i]});
    }
    std::sort(plan_.moves_.begin(), plan_.moves_.end(),
              [](const Move& a, const Move& b) { return a.id < b.id; });
  }

  const std::vector<Item>& items_;
  const uint32_t fixedEnd_;
  FreeSpace& free_;
  const uint64_t maxBytes_;
  std::map<uint32_t, size_t> layout_;  // where each item lies as planned, by offset
  std::vector<FileRange> planned_;
  std::vector<bool> moved_;
  RelocationPlan plan_;
};

RelocationPlan RelocationPlan::Make(const std::vector<Item>& items, uint32_t fixedEnd,
                                    FreeSpace& free, uint64_t maxBytes) {
  return Planner(items, fixedEnd, free, maxBytes).run();
}

std::string RelocationPlan::check(const std::vector<Item>& items, const FreeSpace& freeBefore,
                                  uint32_t minAllocation, uint64_t maxBytes) const {
  std::map<uint32_t, FileRange> sources;
  uint32_t bound = 0;
  for (const Item& item : items) {
    sources.emplace(item.id, item.range);
    bound = std::max(bound, item.range.offset);
  }
  const std::vector<FileRange> free = freeBefore.ranges();
  std::vector<FileRange> destinations;
  uint64_t bytes = 0;
  for (const Move& move : moves_) {
    const std::string entry = "entry " + std::to_string(move.id);
    const auto source = sources.find(move.id);
    if (source == sources.end() || !(source->second == move.from)) {
      return entry + " moves from a range not its own, or twice";
    }
    sources.erase(source);
    bytes += move.from.length;
    if (move.to.length < move.from.length || move.to.length - move.from.length > minAllocation ||
        move.to.end() > bound) {
      return entry + " moves to a range of the wrong size or place";
    }
    const bool wasFree = std::any_of(free.begin(), free.end(), [&](const FileRange& range) {
      return range.offset <= move.to.offset && move.to.end() <= range.end();
    });
    if (!wasFree) return entry + " moves to a range not free";
    destinations.push_back(move.to);
  }
  std::sort(destinations.begin(), destinations.end(),
            [](const FileRange& a, const FileRange& b) { return a.offset < b.offset; });
  for (size_t i = 1; i < destinations.size(); ++i) {
    if (destinations[i - 1].end() > destinations[i].offset) return "two destinations overlap";
  }
  if (bytes != bytes_ || bytes > maxBytes) return "the bytes moved pass the bound";
  uint64_t end = 0;
  for (const auto& [id, range] : sources) end = std::max<uint64_t>(end, range.end());
  for (const Move& move : moves_) end = std::max<uint64_t>(end, move.to.end());
  if (endAfter_ < end) return "the end after the moves is below a claimed range";
  return {};
}

}  // namespace Tarn
