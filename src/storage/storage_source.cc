#include "storage_source.h"

#include "drive_list.h"
#include "hardware_disks.h"

namespace ostrel::storage {

namespace {
class wmi_source : public storage_source {
 public:
  wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes)
      : com_(std::move(com)), volumes_(std::move(volumes)) {}
  void drives(const query_limits& limits, collector<drive_record>& out) override {
    query_drive_list(*com_, limits, out);
  }
  void disks(const query_limits& limits, collector<disk_record>& out) override {
    query_hardware_disks(*com_, *volumes_, limits, out);
  }

 private:
  std::shared_ptr<com_api> com_;
  std::shared_ptr<volume_api> volumes_;
};
}  // namespace

std::shared_ptr<storage_source> make_wmi_source(std::shared_ptr<com_api> com, std::shared_ptr<volume_api> volumes) {
  return std::make_shared<wmi_source>(std::move(com), std::move(volumes));
}

}  // namespace ostrel::storage
