#include "drive_list.h"

#include "com_guard.h"
#include "runtime/log.h"

namespace ostrel::storage {

drive_record read_drive(wmi_object& object) {
  drive_record d;
  d.caption = read_text(object.get("Caption"));
  d.free_space = read_size(object.get("FreeSpace"));
  d.size = read_size(object.get("Size"));
  d.used = d.size - d.free_space;  // wraps when the free space is larger, as the list has always reported
  if (object.get("VolumeSerialNumber").type != wmi_value::kind::string) log::err("VolumeSerialNumber is not a string");
  d.description = read_text(object.get("Description"));
  d.drive_type = read_drive_type(object.get("DriveType"));
  return d;
}

void query_drive_list(com_api& com, const query_limits& limits, collector<drive_record>& out) {
  com_guard guard(com);
  com_apartment apartment(com);
  run_wmi_query(com, drive_query, limits, [&](wmi_object& object) { out.add(read_drive(object)); });
}

}  // namespace ostrel::storage
