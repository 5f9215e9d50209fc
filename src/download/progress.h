#pragma once

#include <cstdint>
#include <optional>

namespace corvel {

/// Turns the percentages of single items into one of the whole download. Plain arithmetic.
class Progress {
 public:
  /// What the report of an item's percentage came to.
  struct Step {
    std::uint32_t itemBars;
    /// The item's share of the whole, and by how much that differs from the last one.
    int scaled;
    int delta;
  };

  /// Adds an item's progress steps to those of all items.
  void AddBars(std::uint32_t bars) { m_AllBars += bars; }
  std::uint32_t AllBars() const { return m_AllBars; }

  /// From now on an item with so many steps is written; nothing: none.
  void SetItem(std::optional<std::uint32_t> bars) { m_ItemBars = bars; }

  /// Takes in an item's percentage, even one out of all bounds. @return nothing while no item is written.
  std::optional<Step> Report(int itemPercent);

  /// What was reported last of an item, scaled.
  int LastUpdate() const { return m_LastUpdate; }
  /// The sum of all that was gained; may be more than 100.
  int Current() const { return m_Current; }
  /// The same, 100 at most.
  int Overall() const;

 private:
  std::uint32_t m_AllBars = 0;
  std::optional<std::uint32_t> m_ItemBars;
  int m_LastUpdate = 0;
  int m_Current = 0;
};

}  // namespace corvel
