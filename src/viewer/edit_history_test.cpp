// The edit history against its worked example, its boundaries, and a random run of deletions,
// undos and redos checked against the bit sets a plain model predicts.
#include "viewer/edit_history.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <vector>

namespace LUtils {
namespace {

void select(SampleEdits& edits, std::initializer_list<uint32_t> indices) {
  edits.editSelected([&](SampleBits& bits) {
    for (uint32_t i : indices) bits.set(i);
  });
}

std::vector<bool> deletedOf(const SampleEdits& edits, uint32_t count) {
  std::vector<bool> v(count);
  for (uint32_t i = 0; i < count; ++i) v[i] = edits.deleted(i);
  return v;
}

TEST(EditHistory, LabelsBoundariesAndTheRedoTail) {
  SampleEdits edits;
  edits.reset(10);
  EditHistory history;
  EXPECT_FALSE(history.canUndo());
  EXPECT_EQ(history.undoLabel(), "Undo \tCtrl+z");
  history.undo();  // empty: nothing
  history.redo();

  // One deletion: "Undo Delete" enabled, "Redo " disabled; the selection is gone, the map is
  // modified.
  select(edits, {1, 2});
  history.deleteSelection(edits, 10);
  EXPECT_TRUE(edits.deleted(1) && edits.deleted(2));
  EXPECT_FALSE(edits.hasSelection());
  EXPECT_TRUE(history.modified());
  EXPECT_EQ(history.undoLabel(), "Undo Delete\tCtrl+z");
  EXPECT_TRUE(history.canUndo());
  EXPECT_EQ(history.redoLabel(), "Redo \tCtrl+y");
  EXPECT_FALSE(history.canRedo());

  // Undo everything: the position is -1, and the edit "at" it does not exist.
  history.setModified(false);
  history.undo();
  EXPECT_FALSE(edits.deleted(1) || edits.deleted(2));
  EXPECT_FALSE(edits.selected(1));  // the selection is not restored
  EXPECT_FALSE(history.modified());  // undo leaves the flag alone
  EXPECT_EQ(history.position(), ~uint64_t{0});
  EXPECT_TRUE(history.canRedo());
  EXPECT_EQ(history.redoLabel(), "Redo Delete\tCtrl+y");
  EXPECT_THROW(history.undo(), std::out_of_range);
  EXPECT_THROW((void)history.undoLabel(), std::out_of_range);
  history.redo();
  EXPECT_TRUE(edits.deleted(1) && history.modified());

  // Delete, undo, delete again: the undone edit is dropped, nothing to redo.
  history.undo();
  select(edits, {3});
  history.deleteSelection(edits, 10);
  EXPECT_EQ(history.size(), 1u);
  EXPECT_FALSE(history.canRedo());
  EXPECT_FALSE(edits.deleted(1));

  // With nothing selected a deletion is still an edit, of nothing.
  history.setModified(false);
  history.deleteSelection(edits, 10);
  EXPECT_EQ(history.size(), 2u);
  EXPECT_TRUE(history.modified());
  history.undo();
  EXPECT_TRUE(edits.deleted(3));

  history.clear();
  EXPECT_FALSE(history.canUndo());
  EXPECT_EQ(history.position(), 0u);
}

TEST(EditHistory, UndoingALaterDeletionNeverRevivesAnEarlierOne) {
  SampleEdits edits;
  edits.reset(8);
  EditHistory history;
  select(edits, {1, 2});
  history.deleteSelection(edits, 8);
  select(edits, {2, 3});  // 2 is already deleted
  const auto& second = static_cast<const EditOpDelete&>(history.deleteSelection(edits, 8));
  EXPECT_FALSE(second.marked().test(2));
  history.undo();
  EXPECT_TRUE(edits.deleted(2));
  EXPECT_FALSE(edits.deleted(3));
}

// Any run of deletions, undos and redos leaves exactly the deleted set that replaying the
// applied edits on a plain model gives, and each edit drops compiled geometry once.
TEST(EditHistory, RandomRunsMatchAPlainModel) {
  constexpr uint32_t kCount = 200;
  std::mt19937 random(5);
  SampleEdits edits;
  edits.reset(kCount);
  int deletedChanges = 0;
  edits.changes().subscribe([&](SampleEdits::Change c) { deletedChanges += c == SampleEdits::Change::Deleted; });
  EditHistory history;
  std::vector<std::vector<uint32_t>> modelOps;  // the selection each edit was made from
  size_t applied = 0;
  for (int step = 0; step < 400; ++step) {
    const int action = static_cast<int>(random() % 3);
    const int before = deletedChanges;
    if (action == 0) {
      std::vector<uint32_t> picked;
      for (int k = 0; k < 10; ++k) picked.push_back(random() % kCount);
      edits.editSelected([&](SampleBits& bits) {
        for (uint32_t i : picked) bits.set(i);
      });
      history.deleteSelection(edits, kCount);
      modelOps.resize(applied);
      modelOps.push_back(picked);
      applied = modelOps.size();
      EXPECT_EQ(deletedChanges, before + 1);
    } else if (action == 1 && applied > 0) {
      history.undo();
      --applied;
      EXPECT_EQ(deletedChanges, before + 1);
    } else if (action == 2 && applied < modelOps.size()) {
      history.redo();
      ++applied;
      EXPECT_EQ(deletedChanges, before + 1);
    }
    std::vector<bool> expected(kCount);
    for (size_t e = 0; e < applied; ++e) {
      for (uint32_t i : modelOps[e]) expected[i] = true;
    }
    ASSERT_EQ(deletedOf(edits, kCount), expected) << "step " << step;
  }
}

}  // namespace
}  // namespace LUtils
