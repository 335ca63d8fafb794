// When PINGREQs went out and PINGRESPs came in, and whether an answer came in time. The watch belongs to one
// connection, reads no clock and writes no line. Its owner's lock guards it.
#pragma once

#include <cstdint>

namespace zeb::mqtt {

/// All times are microseconds of CLOCK_BOOTTIME; 0 stands for none.
class PingWatch {
 public:
  enum class Verdict {
    kNothingToJudge,  // no ping is outstanding, or its answer may still come
    kInTime,          // the answer came within the limit
    kLate,            // the answer came after the limit
    kMissing,         // no answer has come within the limit
    kUnordered,       // the answer is not later than the ping
    kLateBefore,      // Sending() has found an answer late since the last look
  };
  struct Judgement {
    Verdict verdict = Verdict::kNothingToJudge;
    int64_t ping_sent = 0;  // with kInTime and kLate
    int64_t pong_recv = 0;  // with kInTime and kLate
    [[nodiscard]] bool healthy() const {
      return verdict == Verdict::kNothingToJudge || verdict == Verdict::kInTime;
    }
  };

  /// A Ping begins. `wait`: its PINGRESP is reported to whoever waits. `reports`: the Ping tells its caller
  /// of a missing answer, which then does not end the session.
  void Begin(bool wait, bool reports) {
    ping_wait_ = wait;
    caller_reports_ = reports;
  }
  /// A Ping that reports to its caller ends. Nothing is left to judge.
  void EndReported(bool answered);
  /// Nobody waits for this ping's answer after all.
  void StopWaiting() { ping_wait_ = false; }
  /// Whether the PINGRESP is reported to whoever waits.
  [[nodiscard]] bool waits() const { return ping_wait_; }

  /// A PINGREQ is about to be written. An answer to the one before it is judged now, since the new stamp
  /// would make it look older than its own ping.
  Judgement Sending(int64_t now_us, int64_t limit_us);

  /// A PINGRESP came in.
  void Received(int64_t now_us);

  /// Whether Judge would find nothing.
  [[nodiscard]] bool quiet() const { return ping_sent_ == 0 && !was_late_; }
  /// Judges the ping that is outstanding.
  Judgement Judge(int64_t now_us, int64_t limit_us);

 private:
  friend struct SelfMqttImplPeer;  // tests set the stamps, which stand for time that has passed

  Judgement JudgeAnswer(int64_t limit_us);

  bool ping_wait_ = false;
  int64_t ping_sent_ = 0;
  int64_t pong_recv_ = 0;
  int32_t unanswered_ = 0;       // PINGREQs whose PINGRESP the broker still owes
  bool caller_reports_ = false;  // a Ping waits and tells its caller of a missing answer
  bool gave_up_ = false;         // the last PINGREQ's caller left before its answer came
  bool was_late_ = false;        // Sending() found an answer late
};

}  // namespace zeb::mqtt
