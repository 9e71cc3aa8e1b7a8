// krtracker-sim: runs the tracker on a simulated robot. Until the simulated robot is in place
// it shows the platform at work: a broker with an in-process module, a typed remote call, and
// the tracker's configuration table.

#include <iostream>
#include <map>
#include <string>

#include <kr/broker/broker.h>
#include <krtracker/config/krgenerictrackerconfig.h>

int main() {
  auto broker = KR::KRBroker::create("demo");
  auto memory = std::make_shared<KR::KRModule>("KRMemory");
  auto data = std::make_shared<std::map<std::string, KR::KRValue>>();
  memory->bind("insertData", [data](const std::string& key, const KR::KRValue& value) {
    (*data)[key] = value;
  });
  memory->bind("getData", [data](const std::string& key) { return data->at(key); });
  broker->addModule(memory);

  auto proxy = broker->getProxy("KRMemory", 0);
  proxy->call<void>("insertData", std::string("KRTracker/Demo"), KR::KRValue{1.5f, "ball", true});
  std::cout << "KRMemory.getData(\"KRTracker/Demo\") -> "
            << proxy->call<KR::KRValue>("getData", std::string("KRTracker/Demo")) << "\n\n";

  std::cout << "Tracker configuration:\n" << KR::Tracker::configToString();
  broker->shutdown();
  return 0;
}
