// A program written the way a robot engineer would use the installed library.
#include <korcommon/utils.h>

#include <dova/init.h>
#include <dova/json/elements.h>
#include <dova/json/writer.h>

#include <iostream>
#include <sstream>

int main() {
  if (!dova::init("package_consumer")) return 1;

  dova::json::Object pose;
  pose["x"] = dova::json::Number(0.5);
  std::ostringstream text;
  dova::json::Writer::Write(pose, text);

  const std::string envelope =
      R"({"accid":"RB-0001","title":"walk","guid":"g-1","timestamp":5,"data":)" + text.str() + "}";
  const bool valid = korcommon::isSigValid(envelope);
  std::cout << "consumer " << (valid ? "ok" : "failed") << ": title="
            << korcommon::parseSigTitle(envelope) << '\n';
  dova::shutdown();
  return valid ? 0 : 1;
}
