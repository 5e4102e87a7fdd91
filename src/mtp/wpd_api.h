// The Windows Portable Devices interfaces, class ids and property keys this
// module uses. mingw-w64 ships portabledevicetypes.h (IPortableDeviceValues,
// IPortableDeviceKeyCollection) but not portabledeviceapi.h; the interfaces
// below follow the published PortableDeviceApi.h, the ids and keys the
// published PortableDevice.h and PortableDeviceTypes.h. Only the methods'
// order and signatures matter to the vtables: every method is declared, used
// or not.
//
// Windows only: include it from *_win.cc files (and the WPD test double).
#pragma once

#include <windows.h>
#include <objbase.h>
#include <portabledevicetypes.h>
#include <propidl.h>
#include <wtypes.h>

namespace ostrel::wpd {

// ---- Class ids (PortableDeviceApi.h, PortableDeviceTypes.h)
inline constexpr CLSID clsid_manager = {0x0af10cec, 0x2ecd, 0x4b92, {0x95, 0x81, 0x34, 0xf6, 0xae, 0x06, 0x37, 0xf3}};
inline constexpr CLSID clsid_device_ftm = {
    0xf7c0039a, 0x4762, 0x488a, {0xb4, 0xb3, 0x76, 0x0e, 0xf9, 0xa1, 0xba, 0x9b}};
inline constexpr CLSID clsid_values = {0x0c15d503, 0xd017, 0x47ce, {0x90, 0x16, 0x7b, 0x3f, 0x97, 0x87, 0x21, 0xcc}};
inline constexpr CLSID clsid_key_collection = {
    0xde2d022d, 0x2480, 0x43be, {0x97, 0xf0, 0xd1, 0xfa, 0x2c, 0xf9, 0x8f, 0x4f}};
inline constexpr CLSID clsid_prop_variant_collection = {
    0x08a99e2f, 0x6d6d, 0x4b80, {0xaf, 0x5a, 0xba, 0xf2, 0xbc, 0xbe, 0x4c, 0xb9}};

// ---- Interface ids
inline constexpr IID iid_manager = {0xa1567595, 0x4c2f, 0x4574, {0xa6, 0xfa, 0xec, 0xef, 0x91, 0x7b, 0x9a, 0x40}};
inline constexpr IID iid_device = {0x625e2df8, 0x6392, 0x4cf0, {0x9a, 0xd1, 0x3c, 0xfa, 0x5f, 0x17, 0x77, 0x5c}};
inline constexpr IID iid_content = {0x6a96ed84, 0x7c73, 0x4480, {0x99, 0x38, 0xbf, 0x5a, 0xf4, 0x77, 0xd4, 0x26}};
inline constexpr IID iid_enum_object_ids = {
    0x10ece955, 0xcf41, 0x4728, {0xbf, 0xa0, 0x41, 0xee, 0xdf, 0x1b, 0xbf, 0x19}};
inline constexpr IID iid_properties = {0x7f6d695c, 0x03df, 0x4439, {0xa8, 0x09, 0x59, 0x26, 0x6b, 0xee, 0xe3, 0xa6}};
inline constexpr IID iid_resources = {0xfd8878ac, 0xd841, 0x4d17, {0x89, 0x1c, 0xe6, 0x82, 0x9c, 0xdb, 0x69, 0x34}};
inline constexpr IID iid_values = {0x6848f6f2, 0x3155, 0x4f86, {0xb6, 0xf5, 0x26, 0x3e, 0xee, 0xab, 0x31, 0x43}};
inline constexpr IID iid_key_collection = {
    0xdada2357, 0xe0ad, 0x492e, {0x98, 0xdb, 0xdd, 0x61, 0xc5, 0x3b, 0xa3, 0x53}};
inline constexpr IID iid_prop_variant_collection = {
    0x89b2e422, 0x4f1b, 0x4316, {0xbc, 0xef, 0xa4, 0x4a, 0xfe, 0xa8, 0x3e, 0xb3}};
inline constexpr IID iid_values_collection = {
    0x6e3f2d79, 0x4e07, 0x48c4, {0x82, 0x08, 0xd8, 0xc2, 0xe5, 0xaf, 0x4a, 0x99}};
inline constexpr IID iid_properties_bulk = {
    0x482b05c0, 0x4056, 0x44ed, {0x9e, 0x0f, 0x5e, 0x23, 0xb0, 0x09, 0xda, 0x93}};
inline constexpr IID iid_properties_bulk_callback = {
    0x9deacb80, 0x11e8, 0x40e3, {0xa9, 0xf3, 0xf5, 0x57, 0x98, 0x6a, 0x78, 0x45}};

// ---- Property keys
// WPD_CLIENT_INFORMATION_PROPERTIES_V1 {204D9F0C-2292-4080-9F42-40664E70F859}
inline constexpr GUID client_information_v1 = {
    0x204d9f0c, 0x2292, 0x4080, {0x9f, 0x42, 0x40, 0x66, 0x4e, 0x70, 0xf8, 0x59}};
inline constexpr PROPERTYKEY client_name = {client_information_v1, 2};
inline constexpr PROPERTYKEY client_major_version = {client_information_v1, 3};
inline constexpr PROPERTYKEY client_minor_version = {client_information_v1, 4};
inline constexpr PROPERTYKEY client_revision = {client_information_v1, 5};
inline constexpr PROPERTYKEY client_security_quality_of_service = {client_information_v1, 8};
inline constexpr PROPERTYKEY client_desired_access = {client_information_v1, 9};

// WPD_DEVICE_PROPERTIES_V1 {26D4979A-E643-4626-9E2B-736DC0C92FDC}
inline constexpr GUID device_properties_v1 = {
    0x26d4979a, 0xe643, 0x4626, {0x9e, 0x2b, 0x73, 0x6d, 0xc0, 0xc9, 0x2f, 0xdc}};
inline constexpr PROPERTYKEY device_protocol = {device_properties_v1, 6};
inline constexpr PROPERTYKEY device_manufacturer = {device_properties_v1, 7};
inline constexpr PROPERTYKEY device_model = {device_properties_v1, 8};
inline constexpr PROPERTYKEY device_serial_number = {device_properties_v1, 9};
inline constexpr PROPERTYKEY device_friendly_name = {device_properties_v1, 12};

// WPD_OBJECT_PROPERTIES_V1 {EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C}
inline constexpr GUID object_properties_v1 = {
    0xef6b490d, 0x5cd8, 0x437a, {0xaf, 0xfc, 0xda, 0x8b, 0x60, 0xee, 0x4a, 0x3c}};
inline constexpr PROPERTYKEY object_id = {object_properties_v1, 2};
inline constexpr PROPERTYKEY object_parent_id = {object_properties_v1, 3};
inline constexpr PROPERTYKEY object_name = {object_properties_v1, 4};
inline constexpr PROPERTYKEY object_content_type = {object_properties_v1, 7};
inline constexpr PROPERTYKEY object_size = {object_properties_v1, 11};
inline constexpr PROPERTYKEY object_original_file_name = {object_properties_v1, 12};
inline constexpr PROPERTYKEY object_date_created = {object_properties_v1, 18};
inline constexpr PROPERTYKEY object_date_modified = {object_properties_v1, 19};

// Resources
inline constexpr PROPERTYKEY resource_default = {
    {0xe81e79be, 0x34f0, 0x41bf, {0xb5, 0x3f, 0xf1, 0xa0, 0x6a, 0xe8, 0x78, 0x42}}, 0};
inline constexpr PROPERTYKEY resource_thumbnail = {
    {0xc7c407ba, 0x98fa, 0x46b5, {0x99, 0x60, 0x23, 0xfe, 0xc1, 0x24, 0xcf, 0xde}}, 0};

// The id of the device object, the root of every device's tree.
inline constexpr wchar_t device_object_id[] = L"DEVICE";

// E_WPD_DEVICE_NOT_OPEN: MAKE_HRESULT(SEVERITY_ERROR, FACILITY_WPD (42), 2).
inline constexpr HRESULT e_device_not_open = static_cast<HRESULT>(0x802A0002);

}  // namespace ostrel::wpd

// ---- Interfaces (global names, as in the SDK header)
struct IPortableDeviceContent;
struct IPortableDeviceCapabilities;   // not used: an opaque pointer type
struct IPortableDeviceEventCallback;  // not used: an opaque pointer type
struct IEnumPortableDeviceObjectIDs;
struct IPortableDeviceProperties;
struct IPortableDeviceResources;

struct IPortableDeviceManager : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetDevices(LPWSTR* pPnPDeviceIDs, DWORD* pcPnPDeviceIDs) = 0;
  virtual HRESULT STDMETHODCALLTYPE RefreshDeviceList() = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceFriendlyName(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceFriendlyName,
                                                          DWORD* pcchDeviceFriendlyName) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceDescription(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceDescription,
                                                         DWORD* pcchDeviceDescription) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceManufacturer(LPCWSTR pszPnPDeviceID, WCHAR* pDeviceManufacturer,
                                                          DWORD* pcchDeviceManufacturer) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDeviceProperty(LPCWSTR pszPnPDeviceID, LPCWSTR pszDevicePropertyName,
                                                      BYTE* pData, DWORD* pcbData, DWORD* pdwType) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPrivateDevices(LPWSTR* pPnPDeviceIDs, DWORD* pcPnPDeviceIDs) = 0;
};

struct IPortableDevice : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Open(LPCWSTR pszPnPDeviceID, IPortableDeviceValues* pClientInfo) = 0;
  virtual HRESULT STDMETHODCALLTYPE SendCommand(const DWORD dwFlags, IPortableDeviceValues* pParameters,
                                                IPortableDeviceValues** ppResults) = 0;
  virtual HRESULT STDMETHODCALLTYPE Content(IPortableDeviceContent** ppContent) = 0;
  virtual HRESULT STDMETHODCALLTYPE Capabilities(IPortableDeviceCapabilities** ppCapabilities) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
  virtual HRESULT STDMETHODCALLTYPE Close() = 0;
  virtual HRESULT STDMETHODCALLTYPE Advise(const DWORD dwFlags, IPortableDeviceEventCallback* pCallback,
                                           IPortableDeviceValues* pParameters, LPWSTR* ppszCookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE Unadvise(LPCWSTR pszCookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPnPDeviceID(LPWSTR* ppszPnPDeviceID) = 0;
};

struct IPortableDeviceContent : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE EnumObjects(const DWORD dwFlags, LPCWSTR pszParentObjectID,
                                                IPortableDeviceValues* pFilter,
                                                IEnumPortableDeviceObjectIDs** ppEnum) = 0;
  virtual HRESULT STDMETHODCALLTYPE Properties(IPortableDeviceProperties** ppProperties) = 0;
  virtual HRESULT STDMETHODCALLTYPE Transfer(IPortableDeviceResources** ppResources) = 0;
  virtual HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesOnly(IPortableDeviceValues* pValues,
                                                                   LPWSTR* ppszObjectID) = 0;
  virtual HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesAndData(IPortableDeviceValues* pValues, IStream** ppData,
                                                                      DWORD* pdwOptimalWriteBufferSize,
                                                                      LPWSTR* ppszCookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE Delete(const DWORD dwOptions, IPortableDevicePropVariantCollection* pObjectIDs,
                                           IPortableDevicePropVariantCollection** ppResults) = 0;
  virtual HRESULT STDMETHODCALLTYPE
  GetObjectIDsFromPersistentUniqueIDs(IPortableDevicePropVariantCollection* pPersistentUniqueIDs,
                                      IPortableDevicePropVariantCollection** ppObjectIDs) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
  virtual HRESULT STDMETHODCALLTYPE Move(IPortableDevicePropVariantCollection* pObjectIDs,
                                         LPCWSTR pszDestinationFolderObjectID,
                                         IPortableDevicePropVariantCollection** ppResults) = 0;
  virtual HRESULT STDMETHODCALLTYPE Copy(IPortableDevicePropVariantCollection* pObjectIDs,
                                         LPCWSTR pszDestinationFolderObjectID,
                                         IPortableDevicePropVariantCollection** ppResults) = 0;
};

struct IEnumPortableDeviceObjectIDs : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Next(ULONG cObjects, LPWSTR* pObjIDs, ULONG* pcFetched) = 0;
  virtual HRESULT STDMETHODCALLTYPE Skip(ULONG cObjects) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE Clone(IEnumPortableDeviceObjectIDs** ppEnum) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};

struct IPortableDeviceProperties : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetSupportedProperties(LPCWSTR pszObjectID,
                                                           IPortableDeviceKeyCollection** ppKeys) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPropertyAttributes(LPCWSTR pszObjectID, REFPROPERTYKEY Key,
                                                          IPortableDeviceValues** ppAttributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetValues(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys,
                                              IPortableDeviceValues** ppValues) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetValues(LPCWSTR pszObjectID, IPortableDeviceValues* pValues,
                                              IPortableDeviceValues** ppResults) = 0;
  virtual HRESULT STDMETHODCALLTYPE Delete(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
};

struct IPortableDeviceResources : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetSupportedResources(LPCWSTR pszObjectID,
                                                          IPortableDeviceKeyCollection** ppKeys) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetResourceAttributes(LPCWSTR pszObjectID, REFPROPERTYKEY Key,
                                                          IPortableDeviceValues** ppResourceAttributes) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStream(LPCWSTR pszObjectID, REFPROPERTYKEY Key, const DWORD dwMode,
                                              DWORD* pdwOptimalBufferSize, IStream** ppStream) = 0;
  virtual HRESULT STDMETHODCALLTYPE Delete(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
  virtual HRESULT STDMETHODCALLTYPE CreateResource(IPortableDeviceValues* pResourceAttributes, IStream** ppData,
                                                   DWORD* pdwOptimalWriteBufferSize, LPWSTR* ppszCookie) = 0;
};

struct IPortableDevicePropertiesBulkCallback : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OnStart(REFGUID pContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnProgress(REFGUID pContext, IPortableDeviceValuesCollection* pResults) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnEnd(REFGUID pContext, HRESULT hrStatus) = 0;
};

struct IPortableDevicePropertiesBulk : public IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectList(IPortableDevicePropVariantCollection* pObjectIDs,
                                                               IPortableDeviceKeyCollection* pKeys,
                                                               IPortableDevicePropertiesBulkCallback* pCallback,
                                                               GUID* pContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectFormat(REFGUID pguidObjectFormat, LPCWSTR pszParentObjectID,
                                                                 const DWORD dwDepth,
                                                                 IPortableDeviceKeyCollection* pKeys,
                                                                 IPortableDevicePropertiesBulkCallback* pCallback,
                                                                 GUID* pContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueueSetValuesByObjectList(IPortableDeviceValuesCollection* pObjectValues,
                                                               IPortableDevicePropertiesBulkCallback* pCallback,
                                                               GUID* pContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE Start(REFGUID pContext) = 0;
  virtual HRESULT STDMETHODCALLTYPE Cancel(REFGUID pContext) = 0;
};
