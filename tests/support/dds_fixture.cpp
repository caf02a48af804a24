#include "dds_fixture.h"

#include <cstdlib>
#include <map>

#include "dds_domain.h"
#include "dova/init.h"
#include "dova/msgs/topics.h"

namespace korcommon::testing {

using dova::diagnostic_msgs::DiagnosticValue;

void DdsFixture::SetUp() {
  // The platform pins Cyclone to loopback only while CYCLONEDDS_URI is unset.
  unsetenv("CYCLONEDDS_URI");
  domain_ = claimDdsDomain();
}

void DdsFixture::TearDown() { dova::shutdown(); }

void DdsFixture::subscribe(std::function<void(const DiagnosticValue&)> on_report, bool latched) {
  subscribers_.push_back(std::make_unique<dova::Subscriber<DiagnosticValue>>());
  dova::Subscriber<DiagnosticValue>& subscriber = *subscribers_.back();
  subscriber.setTopic(dova::msgs::kDiagnosticsTopic);
  subscriber.callback_kind = 0;
  subscriber.callback_ref = std::move(on_report);
  ASSERT_TRUE(dova::nh()->subscribe(subscriber, latched, true, -1));
}

std::unique_ptr<ChildProcess> DdsFixture::probe(const std::vector<std::string>& arguments) const {
  auto child = std::make_unique<ChildProcess>(
      DDS_PROBE, arguments,
      std::map<std::string, std::string>{{"DOVA_DOMAIN_ID", domain_}, {"CYCLONEDDS_URI", ""}});
  EXPECT_TRUE(child->started()) << "cannot start " << DDS_PROBE;
  return child;
}

}  // namespace korcommon::testing
