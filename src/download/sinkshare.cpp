#include "download/sinkshare.h"

#include <new>
#include <utility>

#include "common/handles.h"
#include "download/cmbnsink.h"

namespace corvel {

namespace {

/// Guards who shares the present sink, and which sinks may be deleted.
SRWLOCK g_sinkLock = SRWLOCK_INIT;

int g_shares = 0;

/// Sinks that are deaf and disconnected by now, the last one first. Somebody may still be about to leave
/// them: the service's thread can be in the handler that ended the run.
CMbnSinks* g_retiredSinks = nullptr;

/// Takes out of the list those sinks that nobody will come back to.
/// @param joining  a retired sink to put into the list before, or null.
/// @return the first one, chained to the others; null when there is none.
CMbnSinks* TakeDesertedSinks(CMbnSinks* joining) {
  CMbnSinks* deserted = nullptr;
  const ScopedLock lock(g_sinkLock);
  if (joining != nullptr) joining->retiredBefore = std::exchange(g_retiredSinks, joining);
  for (CMbnSinks** link = &g_retiredSinks; *link != nullptr;) {
    CMbnSinks* const sink = *link;
    if (sink->IsDeserted()) {
      *link = sink->retiredBefore;
      sink->retiredBefore = std::exchange(deserted, sink);
    } else {
      link = &sink->retiredBefore;
    }
  }
  return deserted;
}

void DeleteAll(CMbnSinks* sink) {
  while (sink != nullptr) delete std::exchange(sink, sink->retiredBefore);
}

}  // namespace

SinkShare::SinkShare() {
  const ScopedLock lock(g_sinkLock);
  if (g_CMbnSinks == nullptr) {
    g_CMbnSinks = new (std::nothrow) CMbnSinks;
    if (g_CMbnSinks == nullptr) return;
    m_MadeIt = true;
  }
  ++g_shares;
  m_Sink = g_CMbnSinks;
}

SinkShare::~SinkShare() {
  if (m_Sink == nullptr) return;
  // Released at the very end: it is the service that says how long that takes.
  MbnKeptObjects kept;
  {
    const ScopedLock lock(g_sinkLock);
    if (--g_shares > 0) return;
    g_CMbnSinks = nullptr;
    m_Sink->DeInitilazation();
    kept = m_Sink->Retire();
  }
  // From here on a newer run has a sink, events and objects of its own.
  m_Sink->Disconnect();
  DeleteAll(TakeDesertedSinks(m_Sink));
}

void DeleteRetiredSinks() {
  DeleteAll(TakeDesertedSinks(nullptr));
}

}  // namespace corvel
