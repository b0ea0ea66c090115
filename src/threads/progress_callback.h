// The progress interface through which long operations (merging, threaded drawing) report their
// advance, ask whether to abort and let a GUI process its messages. The order of the virtual
// operations is part of the interface; reserved slots keep their places and their neutral
// behaviour, which the defaults here give.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace LUtils {

class ProgressCallback {
 public:
  virtual int reserved0() { return 1; }                      // slot 0
  virtual int reserved1() { return 1; }                      // slot 1
  virtual void setTotal(int32_t total) = 0;                  // slot 2
  virtual int32_t getTotal() = 0;                            // slot 3
  virtual void setProgress(int32_t done) = 0;                // slot 4
  virtual int32_t getProgress() = 0;                         // slot 5
  virtual void reserved6() {}                                // slot 6
  virtual void setTitle(const char* title) = 0;              // slot 7
  // Non-zero asks a running multi-threaded task to stop.
  virtual int abortRequested() { return 0; }                 // slot 8
  virtual int reserved9() { return 0; }                      // slot 9
  virtual void reserved10() {}                               // slot 10
  // Non-zero makes waiting threads let the GUI process its messages.
  virtual int wantsMessageProcessing() { return 0; }         // slot 11
  virtual void processMessages() {}                          // slot 12
  virtual int reserved13() { return 0; }                     // slot 13
  virtual void reserved14() {}                               // slot 14
  virtual ProgressCallback* reserved15() { return this; }    // slot 15
  // A printf-style message; the thread manager passes 0 and 30000 ahead of its format.
  virtual void message(int a, int b, const char* format, ...) {  // slot 16
    (void)a;
    (void)b;
    (void)format;
  }
  virtual void reserved17() {}                               // slot 17
  virtual void reserved18() {}                               // slot 18
  virtual void multiThreadedBegin() {}                       // slot 19
  virtual void multiThreadedEnd() {}                         // slot 20
  virtual void reserved21() {}                               // slot 21
  virtual void reserved22() {}                               // slot 22
  virtual void start() = 0;                                  // slot 23
  virtual void done() = 0;                                   // slot 24
  virtual void reserved25() {}                               // slot 25
  virtual void reserved26() {}                               // slot 26

 protected:
  ~ProgressCallback() = default;
};

}  // namespace LUtils
