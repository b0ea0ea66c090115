// The edit history and the delete edit.
#include "viewer/edit_history.h"

#include <stdexcept>

namespace LUtils {

EditOpDelete::EditOpDelete(SampleEdits& edits, uint32_t sampleCount, EditHistory& history)
    : edits_(edits), history_(history), bitCount_(sampleCount) {
  marked_.clear(sampleCount);
  // A sample an earlier edit deleted is not marked again, so undoing this edit never revives it.
  edits_.editDeleted([&](SampleBits& deleted) {
    for (uint32_t i = 0; i < bitCount_; ++i) {
      if (edits_.selected(i) && !deleted.test(i)) {
        deleted.set(i);
        marked_.set(i);
      }
    }
  });
  edits_.clearSelection();
}

void EditOpDelete::undo() {
  edits_.editDeleted([&](SampleBits& deleted) {
    for (uint32_t i = 0; i < bitCount_; ++i) {
      if (marked_.test(i)) deleted.reset(i);
    }
  });
}

void EditOpDelete::redo() {
  edits_.editDeleted([&](SampleBits& deleted) {
    for (uint32_t i = 0; i < bitCount_; ++i) {
      if (marked_.test(i)) deleted.set(i);
    }
  });
  history_.setModified(true);
}

EditOp& EditHistory::add(std::unique_ptr<EditOp> op) {
  if (ops_.size() - position_ > 1) ops_.resize(position_ + 1);
  ops_.push_back(std::move(op));
  position_ = ops_.size() - 1;
  modified_ = true;
  return *ops_.back();
}

EditOp& EditHistory::deleteSelection(SampleEdits& edits, uint32_t sampleCount) {
  return add(std::make_unique<EditOpDelete>(edits, sampleCount, *this));
}

void EditHistory::undo() {
  if (ops_.empty()) return;
  ops_.at(position_)->undo();
  --position_;
}

void EditHistory::redo() {
  if (ops_.empty()) return;
  const uint64_t next = position_ + 1;
  if (next >= ops_.size()) return;
  position_ = next;
  ops_[next]->redo();
}

void EditHistory::clear() {
  position_ = 0;
  ops_.clear();
}

std::string EditHistory::undoLabel() const {
  return std::string("Undo ") + (canUndo() ? ops_.at(position_)->name() : "") + "\tCtrl+z";
}

std::string EditHistory::redoLabel() const {
  return std::string("Redo ") + (canRedo() ? ops_.at(position_ + 1)->name() : "") + "\tCtrl+y";
}

}  // namespace LUtils
