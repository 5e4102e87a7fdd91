// A device's objects: the object ids of each folder are fetched in batches
// of 512, each object's properties read with one GetValues call on a shared
// key collection, folders and storages descended into depth first.
#include <vector>

#include "mtp_ops.h"
#include "runtime/log.h"
#include "wpd_com.h"

namespace ostrel::mtp {

namespace {

constexpr ULONG batch_size = 512;

[[noreturn]] void fail_listing(HRESULT hr, const std::wstring& folder) {
  if (is_device_gone(hr)) {
    throw mtp_failure(
        "The device was disconnected during the listing (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) + ")");
  }
  throw mtp_failure("Failed to list " + narrow(folder) + ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
}

void check_cancel(const operation_control& control) {
  if (control.cancel.load(std::memory_order_relaxed)) throw mtp_failure("GetMtpFilesById was cancelled");
}

class lister {
 public:
  lister(open_device& device, operation_control& control, bool recursive)
      : device_(device), control_(control), recursive_(recursive) {
    HRESULT hr = device_.content->Properties(properties_.put());
    if (FAILED(hr)) fail_listing(hr, wpd::device_object_id);
    static const PROPERTYKEY keys[] = {wpd::object_parent_id,    wpd::object_name, wpd::object_original_file_name,
                                       wpd::object_content_type, wpd::object_size, wpd::object_date_created,
                                       wpd::object_date_modified};
    keys_ = make_keys(keys);
  }

  // The storage `folder` lives on: its ancestor just below "DEVICE".
  // Throws "Object not found on the device" for an unknown id.
  std::wstring storage_of(const std::wstring& folder) {
    std::wstring id = folder;
    for (int depth = 0; depth < 4096; ++depth) {
      com_ptr<IPortableDeviceValues> values;
      HRESULT hr = properties_->GetValues(id.c_str(), keys_.get(), values.put());
      if (FAILED(hr) || !values) {
        if (is_device_gone(hr)) fail_listing(hr, folder);
        throw mtp_failure("Object not found on the device: " + narrow(folder));
      }
      std::wstring parent = read_string(values.get(), wpd::object_parent_id).value_or(L"");
      if (parent.empty() || parent == wpd::device_object_id) return id;
      id = parent;
    }
    return id;
  }

  // Lists the children of `root` (and, recursively, theirs).
  void run(const std::wstring& root, const std::wstring& root_storage) {
    struct frame {
      std::vector<std::wstring> ids;
      std::size_t next = 0;
      std::wstring storage;  // empty: each child is a storage of its own
    };
    std::vector<frame> stack;
    stack.push_back({children_of(root), 0, root_storage});
    while (!stack.empty()) {
      frame& top = stack.back();
      if (top.next == top.ids.size()) {
        stack.pop_back();
        continue;
      }
      check_cancel(control_);
      std::wstring id = std::move(top.ids[top.next++]);
      std::wstring storage = top.storage.empty() ? id : top.storage;
      object_record record = read_object(id, storage);
      const bool descend = recursive_ && is_container(record.kind);
      objects_.push_back(std::move(record));
      control_.done.fetch_add(1, std::memory_order_relaxed);
      if (descend) {
        std::vector<std::wstring> children = children_of(id);
        stack.push_back({std::move(children), 0, std::move(storage)});
      }
    }
  }

  std::vector<object_record> take() { return std::move(objects_); }

 private:
  std::vector<std::wstring> children_of(const std::wstring& parent) {
    com_ptr<IEnumPortableDeviceObjectIDs> objects;
    HRESULT hr = device_.content->EnumObjects(0, parent.c_str(), nullptr, objects.put());
    if (FAILED(hr) || !objects) {
      if (is_object_missing(hr)) throw mtp_failure("Object not found on the device: " + narrow(parent));
      fail_listing(hr, parent);
    }
    std::vector<std::wstring> ids;
    LPWSTR batch[batch_size];
    for (;;) {
      check_cancel(control_);
      ULONG fetched = 0;
      hr = objects->Next(batch_size, batch, &fetched);
      if (FAILED(hr)) fail_listing(hr, parent);
      for (ULONG i = 0; i < fetched && i < batch_size; ++i) {
        if (batch[i]) ids.emplace_back(batch[i]);
        CoTaskMemFree(batch[i]);
      }
      if (hr == S_FALSE || fetched == 0) break;
    }
    return ids;
  }

  object_record read_object(const std::wstring& id, const std::wstring& storage) {
    object_record r;
    r.id = id;
    r.storage_id = storage;
    com_ptr<IPortableDeviceValues> values;
    HRESULT hr = properties_->GetValues(id.c_str(), keys_.get(), values.put());
    if (FAILED(hr) || !values) {
      if (is_device_gone(hr)) fail_listing(hr, id);
      // The object went away between the listing of its folder and now,
      // or the device refuses it: listed with what is known.
      log::err("Failed to read the properties of object " + narrow(id) +
               ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
      return r;
    }
    IPortableDeviceValues* v = values.get();
    r.parent_id = read_string(v, wpd::object_parent_id).value_or(L"");
    r.name = display_name(read_string(v, wpd::object_original_file_name), read_string(v, wpd::object_name));
    r.kind = classify(read_guid(v, wpd::object_content_type));
    r.size = read_u64(v, wpd::object_size).value_or(0);
    r.created_ms = read_date_ms(v, wpd::object_date_created);
    r.modified_ms = read_date_ms(v, wpd::object_date_modified);
    return r;
  }

  open_device& device_;
  operation_control& control_;
  bool recursive_;
  com_ptr<IPortableDeviceProperties> properties_;
  com_ptr<IPortableDeviceKeyCollection> keys_;
  std::vector<object_record> objects_;
};

}  // namespace

std::vector<object_record> list_objects(const listing_request& request, operation_control& control) {
  com_apartment com;
  check_cancel(control);
  open_device device = open_for_reading(request.device_id);
  lister l(device, control, request.recursive);
  if (request.folder && *request.folder != wpd::device_object_id) {
    std::wstring storage = l.storage_of(*request.folder);
    l.run(*request.folder, storage);
  } else {
    l.run(wpd::device_object_id, L"");
  }
  return l.take();
}

}  // namespace ostrel::mtp
