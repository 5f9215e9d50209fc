#pragma once

class CMbnSinks;

namespace corvel {

/// A run's share of the process-wide sink. The first share makes the sink and the last one retires it: a run
/// that was given up may still wait on the sink's events when the next attempt is here.
///
/// Any thread may make and end shares. What the service does when it is released or disconnected may take as
/// long as it likes, even for ever: that holds up the one share whose end it is, and nobody else.
class SinkShare {
 public:
  SinkShare();
  ~SinkShare();
  SinkShare(const SinkShare&) = delete;
  SinkShare& operator=(const SinkShare&) = delete;

  /// The sink; null when there was no memory for one.
  CMbnSinks* Get() const { return m_Sink; }
  /// True for the share that made the sink.
  bool MadeIt() const { return m_MadeIt; }

 private:
  CMbnSinks* m_Sink = nullptr;
  bool m_MadeIt = false;
};

/// Deletes those of the retired sinks that the service has left. It may have been calling them, or referring
/// to them, when their last share ended.
void DeleteRetiredSinks();

}  // namespace corvel
