// The viewer's edits and their undo history: deleting the selected samples marks them in the
// deleted-sample set and records which ones it marked, so that undo clears exactly those marks
// and redo sets them again. The history is linear: a new edit drops the edits after the current
// position.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "render/draw_options.h"

namespace LUtils {

class EditHistory;

// One edit. The history owns it; undo and redo are only called by the history.
class EditOp {
 public:
  virtual ~EditOp() = default;
  virtual void undo() = 0;
  virtual void redo() = 0;
  // The text after "Undo " / "Redo " in the menu.
  virtual const char* name() const = 0;
};

// Deletes the selected samples that are not deleted yet, when it is made: marks them deleted,
// keeps their indices, and clears the selection. Undo does not restore the selection.
class EditOpDelete final : public EditOp {
 public:
  EditOpDelete(SampleEdits& edits, uint32_t sampleCount, EditHistory& history);
  void undo() override;
  void redo() override;
  const char* name() const override { return "Delete"; }
  // The samples this deletion marked.
  const SampleBits& marked() const { return marked_; }
  uint32_t bitCount() const { return bitCount_; }

 private:
  SampleEdits& edits_;
  EditHistory& history_;
  SampleBits marked_;
  uint32_t bitCount_;
};

// The linear history. The position is the index of the most recently applied edit; it is
// all ones (-1) once the first edit has been undone, and every comparison on it is unsigned.
class EditHistory {
 public:
  // Appends an edit that has just been applied: the edits after the position are dropped, the
  // position moves to the new edit, and the map counts as modified.
  EditOp& add(std::unique_ptr<EditOp> op);
  // Deletes the selection (Delete Selection): always makes an edit, even of nothing.
  EditOp& deleteSelection(SampleEdits& edits, uint32_t sampleCount);

  // Undoes the edit at the position. Empty history: nothing. With everything undone (position
  // -1) the edit at the position does not exist: std::out_of_range is thrown, and the menu
  // handler that called it catches it, so that the user sees nothing happen.
  void undo();
  // Redoes the edit after the position; nothing when there is none.
  void redo();
  // Drops every edit (a new or rebuilt map).
  void clear();

  bool canUndo() const { return !ops_.empty(); }
  bool canRedo() const { return ops_.size() - position_ > 1; }
  // "Undo " + the name of the edit at the position (when undo is possible) + "\tCtrl+z"; throws
  // std::out_of_range like undo() when everything is undone.
  std::string undoLabel() const;
  // "Redo " + the name of the edit after the position (when redo is possible) + "\tCtrl+y".
  std::string redoLabel() const;

  size_t size() const { return ops_.size(); }
  uint64_t position() const { return position_; }

  // Whether the map was changed since it was loaded or saved: set by every new or redone edit.
  bool modified() const { return modified_; }
  void setModified(bool modified) { modified_ = modified; }

 private:
  std::vector<std::unique_ptr<EditOp>> ops_;
  uint64_t position_ = 0;
  bool modified_ = false;
};

}  // namespace LUtils
