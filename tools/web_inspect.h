#ifndef KORCOMMON_TOOLS_WEB_INSPECT_H_
#define KORCOMMON_TOOLS_WEB_INSPECT_H_

#include <optional>
#include <string>

namespace korcommon::cli {

// What the library's inspection functions say about the signal envelope `text`, as JSON:
//   {"valid":true,"members":[{"name":"accid","present":true,"value":...}, ...]}
// one member each for accid, title, guid, timestamp and data, in that order. The values are
// what a receiver reads: accid, title and guid as strings ("" when missing or not a string),
// timestamp in whole milliseconds (0 when missing or not a number), data as its JSON text
// (null when missing). nullopt, with the reader's reason in `error`, when `text` is not one
// JSON object. Stateless; safe on any thread.
std::optional<std::string> inspectEnvelope(const std::string& text, std::string& error);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_INSPECT_H_
