#ifndef DOVA_MSGS_TOPICS_H_
#define DOVA_MSGS_TOPICS_H_

#include <chrono>

// The topics the messages travel on and the timing their subscribers share.
// Every publisher, subscriber, tool and test names them from here, so that a
// topic is spelled once. Constants only; safe on any thread.
namespace dova::msgs {

// diagnostic_msgs/DiagnosticValue reports, latched per report name.
inline constexpr char kDiagnosticsTopic[] = "/diagnostics_value";

// dova_msgs/Log records of the trace logger, latched per publisher.
inline constexpr char kLogTopic[] = "/dova_log";

// How long a new diagnostics subscriber collects reports (typically the state
// the middleware replays on joining) before it hands them over as one batch.
inline constexpr std::chrono::seconds kDiagnosticsCollectionWindow{3};

}  // namespace dova::msgs

#endif  // DOVA_MSGS_TOPICS_H_
