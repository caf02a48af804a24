#ifndef KORCOMMON_LOG_RECORD_POOL_H_
#define KORCOMMON_LOG_RECORD_POOL_H_

#include <memory>

#include "dova/msgs/dova_msgs/Log.h"

namespace korcommon::detail {

// A record for the trace logger to fill and publish. Each thread keeps a few
// records and hands out one that nobody references any more, so a passing
// trace neither allocates nor destroys a record, and its strings keep their
// capacity from one message to the next. When all of them are still held
// (the middleware latches the latest, subscribers may keep theirs) a fresh
// record is allocated instead.
//
// A record is taken back only once its last shared_ptr and its last weak_ptr
// are gone, so nothing that still reaches it can see it change. The fields
// of a recycled record hold an earlier message: the caller sets every one.
// Thread-safe; records may be released on any thread, also after the thread
// that took them has ended.
std::shared_ptr<dova::dova_msgs::Log> takeLogRecord();

}  // namespace korcommon::detail

#endif  // KORCOMMON_LOG_RECORD_POOL_H_
