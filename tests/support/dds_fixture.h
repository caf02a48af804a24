#ifndef KORCOMMON_TESTS_SUPPORT_DDS_FIXTURE_H_
#define KORCOMMON_TESTS_SUPPORT_DDS_FIXTURE_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/os/node_handle_base.h"

namespace korcommon::testing {

// A test of this process with dds_probe processes on the DDS transport, over loopback
// only and in a domain that no other test process running meanwhile uses. TearDown
// shuts the middleware down.
class DdsFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Subscribes `on_report` to the "/diagnostics_value" reports of every process. The fixture owns
  // the subscriber, so it outlives the shutdown in TearDown; whatever the callback uses
  // must be shared with it or belong to the fixture, not be a local of the test.
  void subscribe(std::function<void(const dova::diagnostic_msgs::DiagnosticValue&)> on_report,
                 bool latched = false);

  // Starts dds_probe with `arguments` (see dds_probe.cpp) in the fixture's domain.
  std::unique_ptr<ChildProcess> probe(const std::vector<std::string>& arguments) const;

 private:
  std::string domain_;
  std::vector<std::unique_ptr<dova::Subscriber<dova::diagnostic_msgs::DiagnosticValue>>>
      subscribers_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_DDS_FIXTURE_H_
