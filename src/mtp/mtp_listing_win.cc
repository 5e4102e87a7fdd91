// A device's objects: the object ids of each folder are fetched in batches
// of 512, then the properties of all of the folder's objects are read with
// one bulk request (IPortableDevicePropertiesBulk, which a device driver
// answers in large batches on its own thread), or, where the device does
// not offer bulk requests, with one GetValues call per object on a shared
// key collection. Folders and storages are descended into depth first.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "mtp_ops.h"
#include "runtime/log.h"
#include "wpd_com.h"

namespace ostrel::mtp {

namespace {

constexpr const char* listing_cancelled = "GetMtpFilesById was cancelled";

constexpr ULONG batch_size = 512;
// How long a cancelled bulk request may take to end before the listing
// stops waiting for it.
constexpr auto bulk_cancel_grace = std::chrono::seconds(5);
// How long a bulk request may go without a single callback before the
// listing gives up on it and reads that batch object by object: a driver
// that drops a request must not hang the listing.
constexpr auto bulk_stall_limit = std::chrono::seconds(10);

[[noreturn]] void fail_listing(HRESULT hr, const std::wstring& folder) {
  if (is_device_gone(hr)) {
    throw mtp_failure(
        "The device was disconnected during the listing (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) + ")");
  }
  throw mtp_failure("Failed to list " + narrow(folder) + ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
}

// The listing's record of one object from its property values.
object_record record_of(IPortableDeviceValues* v, const std::wstring& id) {
  object_record r;
  r.id = id;
  r.parent_id = read_string(v, wpd::object_parent_id).value_or(L"");
  r.name = display_name(read_string(v, wpd::object_original_file_name), read_string(v, wpd::object_name));
  std::optional<guid_value> type = read_guid(v, wpd::object_content_type);
  r.kind = classify(type);
  r.functional = type == content_type_functional_object;
  r.size = read_u64(v, wpd::object_size).value_or(0);
  r.created_ms = read_date_ms(v, wpd::object_date_created);
  r.modified_ms = read_date_ms(v, wpd::object_date_modified);
  return r;
}

// Receives the results of one bulk request, on the driver's thread. Owns
// everything it touches, so a late call after the listing gave up on it is
// harmless.
class bulk_receiver final : public IPortableDevicePropertiesBulkCallback {
 public:
  bulk_receiver() : done_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~bulk_receiver() {
    if (done_) CloseHandle(done_);
  }
  bool ready() const { return done_ != nullptr; }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, wpd::iid_properties_bulk_callback)) {
      *out = static_cast<IPortableDevicePropertiesBulkCallback*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }

  HRESULT STDMETHODCALLTYPE OnStart(REFGUID) override {
    started_ = true;
    return S_OK;
  }
  // Called by the driver: nothing may escape into its code.
  HRESULT STDMETHODCALLTYPE OnProgress(REFGUID, IPortableDeviceValuesCollection* results) override {
    try {
      take_batch(results);
    } catch (const std::exception& e) {
      log::err(std::string("Failed to take bulk property results: ") + e.what());
    } catch (...) {
      log::err("Failed to take bulk property results");
    }
    return S_OK;
  }
  void take_batch(IPortableDeviceValuesCollection* results) {
    DWORD count = 0;
    if (!results || FAILED(results->GetCount(&count))) return;
    std::vector<std::pair<std::wstring, object_record>> batch;
    batch.reserve(count);
    for (DWORD i = 0; i < count; ++i) {
      com_ptr<IPortableDeviceValues> values;
      if (FAILED(results->GetAt(i, values.put())) || !values) continue;
      std::optional<std::wstring> id = read_string(values.get(), wpd::object_id);
      if (!id) continue;
      batch.emplace_back(*id, record_of(values.get(), *id));
    }
    std::lock_guard lock(mutex_);
    for (auto& [id, record] : batch) records_.insert_or_assign(std::move(id), std::move(record));
    received_ += batch.size();
  }
  HRESULT STDMETHODCALLTYPE OnEnd(REFGUID, HRESULT status) override {
    status_ = status;
    SetEvent(done_);
    return S_OK;
  }

  // Waits up to `ms` for the end; true once it came.
  bool wait(DWORD ms) { return WaitForSingleObject(done_, ms) == WAIT_OBJECT_0; }
  HRESULT status() const { return status_; }
  std::uint64_t received() const { return received_; }
  bool started() const { return started_; }
  std::unordered_map<std::wstring, object_record> take() {
    std::lock_guard lock(mutex_);
    return std::move(records_);
  }

 private:
  std::atomic<ULONG> refs_{1};
  HANDLE done_;
  std::atomic<HRESULT> status_{S_OK};
  std::atomic<std::uint64_t> received_{0};
  std::atomic<bool> started_{false};
  std::mutex mutex_;
  std::unordered_map<std::wstring, object_record> records_;
};

class lister {
 public:
  lister(open_device& device, operation_control& control, bool recursive)
      : device_(device), control_(control), recursive_(recursive) {
    HRESULT hr = device_.content->Properties(properties_.put());
    if (FAILED(hr)) fail_listing(hr, wpd::device_object_id);
    static const PROPERTYKEY keys[] = {
        wpd::object_id,           wpd::object_parent_id, wpd::object_name,         wpd::object_original_file_name,
        wpd::object_content_type, wpd::object_size,      wpd::object_date_created, wpd::object_date_modified};
    keys_ = make_keys(keys);
    // Bulk requests where the device offers them.
    if (FAILED(properties_->QueryInterface(wpd::iid_properties_bulk, bulk_.put_void()))) bulk_.reset();
  }

  // The storage `folder` lives on: its ancestor just below "DEVICE".
  // Throws "Object not found on the device" for an unknown id.
  std::wstring storage_of(const std::wstring& folder) {
    std::wstring id = folder;
    std::unordered_set<std::wstring> seen;
    // An ancestor met twice (a device whose parents form a loop) ends the
    // walk up there.
    while (seen.insert(id).second && seen.size() <= max_listing_depth * 4) {
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
    walk_hooks hooks;
    hooks.children = [this](const std::wstring& parent, const std::wstring& storage) {
      return read_children(parent, storage);
    };
    hooks.check_cancel = [this] { control_.throw_if_cancelled(listing_cancelled); };
    hooks.log = [](const std::wstring& line) { log::err(narrow(line)); };
    objects_ = walk_objects(root, root_storage, recursive_, hooks);
  }

  std::vector<object_record> take() { return std::move(objects_); }
  bool used_bulk() const { return used_bulk_; }

 private:
  // The records of the children of `parent`, in the device's order. Each
  // lives on `storage`; an empty `storage` (children of "DEVICE") makes each
  // child a storage of its own.
  std::vector<object_record> read_children(const std::wstring& parent, const std::wstring& storage) {
    std::vector<std::wstring> ids = children_of(parent);
    std::vector<object_record> records;
    if (ids.empty()) return records;
    if (!bulk_ || !read_bulk(ids, records)) {
      records.clear();
      records.reserve(ids.size());
      for (const std::wstring& id : ids) {
        control_.throw_if_cancelled(listing_cancelled);
        records.push_back(read_object(id));
        control_.done.fetch_add(1, std::memory_order_relaxed);
      }
    }
    for (object_record& r : records) r.storage_id = storage.empty() ? r.id : storage;
    return records;
  }

  // The ids of the children of `parent`. A device gone throws
  // mtp_failure; a folder the device will not list throws folder_unreadable
  // (the caller decides whether that ends the listing).
  std::vector<std::wstring> children_of(const std::wstring& parent) {
    com_ptr<IEnumPortableDeviceObjectIDs> objects;
    HRESULT hr = device_.content->EnumObjects(0, parent.c_str(), nullptr, objects.put());
    if (FAILED(hr) || !objects) {
      if (is_device_gone(hr)) fail_listing(hr, parent);
      if (is_object_missing(hr)) throw folder_unreadable("Object not found on the device: " + narrow(parent));
      throw folder_unreadable("Failed to list " + narrow(parent) +
                              ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
    }
    std::vector<std::wstring> ids;
    LPWSTR batch[batch_size];
    for (;;) {
      control_.throw_if_cancelled(listing_cancelled);
      ULONG fetched = 0;
      hr = objects->Next(batch_size, batch, &fetched);
      if (FAILED(hr)) {
        if (is_device_gone(hr)) fail_listing(hr, parent);
        throw folder_unreadable("Failed to list " + narrow(parent) +
                                ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
      }
      // A driver may claim more than the room it was given.
      if (fetched > batch_size) fetched = batch_size;
      for (ULONG i = 0; i < fetched; ++i) {
        if (batch[i]) ids.emplace_back(batch[i]);
        CoTaskMemFree(batch[i]);
      }
      if (hr == S_FALSE || fetched == 0) break;
    }
    return ids;
  }

  // One bulk request for `ids`. False when the device turned the request
  // down (the caller reads object by object from then on).
  bool read_bulk(const std::vector<std::wstring>& ids, std::vector<object_record>& records) {
    com_ptr<IPortableDevicePropVariantCollection> list;
    HRESULT hr = CoCreateInstance(wpd::clsid_prop_variant_collection, nullptr, CLSCTX_INPROC_SERVER,
                                  wpd::iid_prop_variant_collection, list.put_void());
    if (FAILED(hr)) return give_up_bulk(hr);
    for (const std::wstring& id : ids) {
      PROPVARIANT v;
      PropVariantInit(&v);
      v.vt = VT_LPWSTR;
      v.pwszVal = const_cast<LPWSTR>(id.c_str());
      hr = list->Add(&v);  // copies the string
      if (FAILED(hr)) return give_up_bulk(hr);
    }
    auto* receiver = new bulk_receiver();
    com_ptr<IPortableDevicePropertiesBulkCallback> callback;
    *callback.put() = receiver;  // takes the first reference
    if (!receiver->ready()) return give_up_bulk(HRESULT_FROM_WIN32(GetLastError()));
    GUID context{};
    hr = bulk_->QueueGetValuesByObjectList(list.get(), keys_.get(), callback.get(), &context);
    if (FAILED(hr)) {
      if (is_device_gone(hr)) fail_listing(hr, ids.front());
      return give_up_bulk(hr);
    }
    hr = bulk_->Start(context);
    if (FAILED(hr)) {
      if (is_device_gone(hr)) fail_listing(hr, ids.front());
      return give_up_bulk(hr);
    }
    used_bulk_ = true;
    const std::uint64_t base = control_.done.load();
    bool cancel_sent = false;
    auto cancel_deadline = std::chrono::steady_clock::now();
    auto last_news = std::chrono::steady_clock::now();
    std::uint64_t last_received = 0;
    bool seen_start = false;
    for (;;) {
      const bool ended = receiver->wait(100);
      control_.done = base + receiver->received();
      if (ended) break;
      const auto now = std::chrono::steady_clock::now();
      // News is a result the request can still owe: a driver repeating
      // results without end does not keep the listing waiting.
      const std::uint64_t received = std::min<std::uint64_t>(receiver->received(), ids.size());
      if (received != last_received || receiver->started() != seen_start) {
        last_received = received;
        seen_start = receiver->started();
        last_news = now;
      } else if (!cancel_sent && now - last_news > bulk_stall_limit) {
        bulk_->Cancel(context);
        log::err("A bulk property request got no answer in " + std::to_string(bulk_stall_limit.count()) +
                 " s; reading object by object");
        bulk_.reset();
        return false;
      }
      if (control_.cancel && !cancel_sent) {
        bulk_->Cancel(context);
        cancel_sent = true;
        cancel_deadline = std::chrono::steady_clock::now() + bulk_cancel_grace;
      }
      if (cancel_sent && std::chrono::steady_clock::now() > cancel_deadline) break;
    }
    control_.throw_if_cancelled(listing_cancelled);
    hr = receiver->status();
    if (FAILED(hr)) fail_listing(hr, ids.front());
    std::unordered_map<std::wstring, object_record> found = receiver->take();
    records.reserve(ids.size());
    for (const std::wstring& id : ids) {
      auto it = found.find(id);
      if (it != found.end()) {
        records.push_back(std::move(it->second));
        continue;
      }
      // Not in the results: the object went away meanwhile, or the
      // device refuses it; listed with what is known.
      log::err("Failed to read the properties of object " + narrow(id));
      object_record r;
      r.id = id;
      records.push_back(std::move(r));
    }
    return true;
  }

  bool give_up_bulk(HRESULT hr) {
    log::err("Bulk property reads are not available (hr = " + hresult_text(static_cast<std::uint32_t>(hr)) +
             "); reading object by object");
    bulk_.reset();
    return false;
  }

  object_record read_object(const std::wstring& id) {
    com_ptr<IPortableDeviceValues> values;
    HRESULT hr = properties_->GetValues(id.c_str(), keys_.get(), values.put());
    if (FAILED(hr) || !values) {
      if (is_device_gone(hr)) fail_listing(hr, id);
      // The object went away between the listing of its folder and now,
      // or the device refuses it: listed with what is known.
      log::err("Failed to read the properties of object " + narrow(id) +
               ", hr = " + hresult_text(static_cast<std::uint32_t>(hr)));
      object_record r;
      r.id = id;
      return r;
    }
    return record_of(values.get(), id);
  }

  open_device& device_;
  operation_control& control_;
  bool recursive_;
  bool used_bulk_ = false;
  com_ptr<IPortableDeviceProperties> properties_;
  com_ptr<IPortableDevicePropertiesBulk> bulk_;
  com_ptr<IPortableDeviceKeyCollection> keys_;
  std::vector<object_record> objects_;
};

}  // namespace

std::vector<object_record> list_objects(const listing_request& request, operation_control& control) {
  com_apartment com;
  control.throw_if_cancelled(listing_cancelled);
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
