// The Windows Firewall over COM: BaseFirewallConfigurator through the older interface
// (INetFwMgr: the current profile's list of authorised applications), AdvancedFirewallConfigurator
// through the newer one (INetFwPolicy2: rules per direction and profile). Changing either needs
// administrator rights, which the elevation moniker asks the user for.

// clang-format off
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>
#include <netfw.h>
// clang-format on

#include <string>
#include <utility>

#include "core/firewall_configurator.h"
#include "foundation/logging/category.h"
#include "foundation/wide_string_win.h"

namespace core {
namespace {

fn::logging::Category logFirewall("core.firewall");

// The published identifiers, spelt out so that no import library has to provide them.
constexpr GUID FW_MGR_CLSID = {0x304CE942,
                               0x6E39,
                               0x40D8,
                               {0x94, 0x3A, 0xB9, 0x13, 0xC4, 0x0C, 0x9C, 0xD4}};
constexpr GUID FW_MGR_IID = {0xF7898AF5,
                             0xCAC4,
                             0x4632,
                             {0xA2, 0xEC, 0xDA, 0x06, 0xE5, 0x11, 0x1A, 0xF2}};
constexpr GUID FW_AUTHORIZED_APPLICATION_CLSID = {0xEC9846B3,
                                                  0x2762,
                                                  0x4A6B,
                                                  {0xA2, 0x14, 0x6A, 0xCB, 0x60, 0x34, 0x62, 0xD2}};
constexpr GUID FW_AUTHORIZED_APPLICATION_IID = {0xB5E64FFA,
                                                0xC2C5,
                                                0x444E,
                                                {0xA3, 0x01, 0xFB, 0x5E, 0x00, 0x01, 0x80, 0x50}};
constexpr GUID FW_POLICY2_CLSID = {0xE2B3C97F,
                                   0x6AE1,
                                   0x41AC,
                                   {0x81, 0x7A, 0xF6, 0xF9, 0x21, 0x66, 0xD7, 0xDD}};
constexpr GUID FW_POLICY2_IID = {0x98325047,
                                 0xC671,
                                 0x4174,
                                 {0x8D, 0x81, 0xDE, 0xFC, 0xD3, 0xF0, 0x31, 0x86}};
constexpr GUID FW_RULE_CLSID = {0x2C5BC43E,
                                0x3369,
                                0x4C33,
                                {0xAB, 0x0C, 0xBE, 0x94, 0x69, 0x67, 0x7A, 0xF4}};
constexpr GUID FW_RULE_IID = {0xAF230D27,
                              0xBABA,
                              0x4E42,
                              {0xAC, 0xED, 0xF5, 0x24, 0xF2, 0x2C, 0xFC, 0xE2}};
constexpr GUID ENUM_VARIANT_IID = {0x00020404,
                                   0x0000,
                                   0x0000,
                                   {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

/// An owned interface pointer.
template <typename T>
class ComPtr {
public:
  ComPtr() = default;
  ComPtr(ComPtr const&) = delete;
  ComPtr& operator=(ComPtr const&) = delete;
  ~ComPtr() { reset(); }

  void reset() {
    if (auto* p = std::exchange(_p, nullptr))
      p->Release();
  }
  /// For the out parameter of a call that hands over a reference.
  T** out() {
    reset();
    return &_p;
  }
  void** outVoid() { return reinterpret_cast<void**>(out()); }
  T* operator->() const { return _p; }
  T* get() const { return _p; }
  explicit operator bool() const { return _p != nullptr; }

private:
  T* _p = nullptr;
};

/// An owned BSTR; null when the allocation failed.
class Bstr {
public:
  explicit Bstr(fn::String const& text) : _s(SysAllocString(fn::toWide(text).c_str())) {}
  Bstr(Bstr const&) = delete;
  Bstr& operator=(Bstr const&) = delete;
  ~Bstr() { SysFreeString(_s); }
  BSTR get() const { return _s; }

private:
  BSTR _s;
};

/// Logs `text` as an error, from the caller's place, and answers false.
bool fail(fn::logging::FormatAt<> text) {
  logFirewall.log(fn::logging::ERR, text);
  return false;
}

uint32_t hex(HRESULT result) {
  return static_cast<uint32_t>(result);
}

// Administrator rights come from the elevation moniker: COM starts the class in an elevated
// local server, after Windows asked the user.
HRESULT createElevated(GUID const& clsid, GUID const& iid, void** object) {
  wchar_t clsidText[40] = {};
  StringFromGUID2(clsid, clsidText, static_cast<int>(std::size(clsidText)));
  std::wstring moniker = std::wstring(L"Elevation:Administrator!new:") + clsidText;
  BIND_OPTS3 options{};
  static_assert(sizeof(options) == 48);
  options.cbStruct = sizeof(options);
  options.dwClassContext = CLSCTX_LOCAL_SERVER;
  return CoGetObject(moniker.c_str(), &options, iid, object);
}

HRESULT create(bool elevated, GUID const& clsid, GUID const& iid, void** object) {
  if (elevated)
    return createElevated(clsid, iid, object);
  return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object);
}

/// COM in the single-threaded apartment on this thread. A thread already in another apartment
/// works as well, but then that initialisation is not ours to undo: the result is kept as a
/// failure code, so no CoUninitialize follows, while the caller goes on.
bool initializeCom(HRESULT& comResult) {
  comResult = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  return SUCCEEDED(comResult) || comResult == RPC_E_CHANGED_MODE;
}

void uninitializeCom(HRESULT& comResult) {
  if (SUCCEEDED(comResult))
    CoUninitialize();
  comResult = E_FAIL;
}

class BaseFirewallConfigurator : public FirewallConfigurator {
public:
  ~BaseFirewallConfigurator() override { release(); }

  bool initialize(bool elevated) override {
    if (_policy && (!elevated || _elevated))
      return true;
    release();
    if (!initializeCom(_comResult))
      return false;
    if (FAILED(create(elevated, FW_MGR_CLSID, FW_MGR_IID, _manager.outVoid())) ||
        FAILED(_manager->get_LocalPolicy(_policy.out())) ||
        FAILED(_policy->get_CurrentProfile(_profile.out()))) {
      release();
      return false;
    }
    _elevated = elevated;
    return true;
  }

  bool isFirewallEnabled(bool& enabled) override {
    if (!_profile)
      return fail("Firewall profile has not been initialized yet!");
    VARIANT_BOOL on = VARIANT_FALSE;
    if (FAILED(_profile->get_FirewallEnabled(&on)))
      return false;
    enabled = on != VARIANT_FALSE;
    return true;
  }

  bool isApplicationAuthorized(bool& inbound, bool& outbound, fn::String const& path) override {
    inbound = outbound = false;
    if (!_profile)
      return fail("Firewall profile has not been initialized yet!");
    ComPtr<INetFwAuthorizedApplications> applications;
    if (FAILED(_profile->get_AuthorizedApplications(applications.out())))
      return fail("Can't retrieve the list of authorized firewall applications!");
    Bstr image(path);
    if (!image.get())
      return fail("Allocation of process file name string failed!");
    ComPtr<INetFwAuthorizedApplication> application;
    if (FAILED(applications->Item(image.get(), application.out()))) {
      logFirewall.log(fn::logging::ERR, "Authorized application {} is disabled in the firewall.",
                      path);
      return true;
    }
    VARIANT_BOOL on = VARIANT_FALSE;
    if (FAILED(application->get_Enabled(&on)))
      return fail("Can't retrieve firewall application state");
    if (on == VARIANT_FALSE) {
      logFirewall.log(fn::logging::ERR, "Authorized application {} is disabled in the firewall.",
                      path);
      return true;
    }
    logFirewall.log(fn::logging::ERR, "Authorized application {} is enabled in the firewall.",
                    path);
    inbound = outbound = true;
    return true;
  }

  bool authorizeApplication(fn::String const& path,
                            fn::String const& name,
                            bool inbound,
                            bool outbound) override {
    if (!inbound && !outbound)
      return true;
    if (!initialize(true))
      return fail("Could not get elevated privileges!");
    bool authorizedIn = false, authorizedOut = false;
    if (!isApplicationAuthorized(authorizedIn, authorizedOut, path))
      return false;
    if (authorizedIn && authorizedOut)
      return true;
    ComPtr<INetFwAuthorizedApplication> application;
    if (FAILED(CoCreateInstance(FW_AUTHORIZED_APPLICATION_CLSID, nullptr, CLSCTX_INPROC_SERVER,
                                FW_AUTHORIZED_APPLICATION_IID, application.outVoid())))
      return fail("Can't create an instance of authorized application object");
    Bstr image(path);
    if (!image.get())
      return fail("Allocation of process file name string failed!");
    if (FAILED(application->put_ProcessImageFileName(image.get())))
      return fail("Configuration of application's image name failed!");
    Bstr friendlyName(name);
    if (!friendlyName.get())
      return fail("Allocation of application's friendly name string failed!");
    if (FAILED(application->put_Name(friendlyName.get())))
      return fail("Setting of application's friendly name failed!");
    ComPtr<INetFwAuthorizedApplications> applications;
    if (FAILED(_profile->get_AuthorizedApplications(applications.out())) ||
        FAILED(applications->Add(application.get())))
      return fail("Application couldn't be added to the application collection!");
    logFirewall.log(fn::logging::ERR, "Authorized application {} is now enabled in the firewall.\n",
                    path);
    return true;
  }

private:
  void release() {
    _profile.reset();
    _policy.reset();
    _manager.reset();
    _elevated = false;
    uninitializeCom(_comResult);
  }

  ComPtr<INetFwMgr> _manager;
  bool _elevated = false;
  ComPtr<INetFwPolicy> _policy;
  /// The current profile; null until initialised.
  ComPtr<INetFwProfile> _profile;
  HRESULT _comResult = E_FAIL;
};

class AdvancedFirewallConfigurator : public FirewallConfigurator {
public:
  ~AdvancedFirewallConfigurator() override { release(); }

  bool initialize(bool elevated) override {
    if (_policy && (!elevated || _elevated))
      return true;
    release();
    if (!initializeCom(_comResult)) {
      logFirewall.log(fn::logging::ERR, "CoInitializeEx failed: 0x{:08x}\n", hex(_comResult));
      return false;
    }
    HRESULT result = create(elevated, FW_POLICY2_CLSID, FW_POLICY2_IID, _policy.outVoid());
    if (FAILED(result)) {
      logFirewall.log(fn::logging::ERR, "CoCreateInstance for INetFwPolicy2 failed: 0x{:08x}\n",
                      hex(result));
      release();
      return false;
    }
    _elevated = elevated;
    return true;
  }

  // A profile that is not current counts as enabled: only the current ones can let traffic in.
  bool isFirewallEnabled(bool& enabled) override {
    if (!_policy)
      return fail("Firewall profile has not been initialized yet!");
    long types = 0;
    HRESULT result = _policy->get_CurrentProfileTypes(&types);
    if (FAILED(result)) {
      logFirewall.log(fn::logging::ERR, "get_CurrentProfileTypes failed: 0x{:08x}\n", hex(result));
      return false;
    }
    bool on[3] = {true, true, true};
    NET_FW_PROFILE_TYPE2 const profiles[3] = {NET_FW_PROFILE2_DOMAIN, NET_FW_PROFILE2_PRIVATE,
                                              NET_FW_PROFILE2_PUBLIC};
    for (int i = 0; i < 3; ++i) {
      if (!(types & profiles[i]))
        continue;
      VARIANT_BOOL value = VARIANT_FALSE;
      result = _policy->get_FirewallEnabled(profiles[i], &value);
      on[i] = value != VARIANT_FALSE;
    }
    if (FAILED(result))
      return false;
    enabled = on[0] && on[1] && on[2];
    return true;
  }

  bool isApplicationAuthorized(bool& inbound, bool& outbound, fn::String const& path) override {
    inbound = outbound = false;
    if (!_policy)
      return fail("Firewall profile has not been initialized yet!");
    ComPtr<INetFwRules> rules;
    if (FAILED(_policy->get_Rules(rules.out())))
      return fail("Can't retrieve firewall rules!");
    long count = 0;
    if (FAILED(rules->get_Count(&count)))
      return fail("Can't retrieve the number of firewall rules!");
    ComPtr<IUnknown> enumerable;
    ComPtr<IEnumVARIANT> enumerator;
    if (FAILED(rules->get__NewEnum(enumerable.out())) ||
        FAILED(enumerable->QueryInterface(ENUM_VARIANT_IID, enumerator.outVoid())))
      return false;
    // Only the application and the direction matter: a rule the user disabled is still the
    // application's, so it is not added again behind the user's back.
    VARIANT item;
    VariantInit(&item);
    ULONG fetched = 0;
    while (!(inbound && outbound) && enumerator->Next(1, &item, &fetched) == S_OK && fetched == 1) {
      ComPtr<INetFwRule> rule;
      BSTR application = nullptr;
      NET_FW_RULE_DIRECTION direction = NET_FW_RULE_DIR_IN;
      if (SUCCEEDED(VariantChangeType(&item, &item, 0, VT_DISPATCH)) && item.pdispVal &&
          SUCCEEDED(item.pdispVal->QueryInterface(FW_RULE_IID, rule.outVoid())) &&
          SUCCEEDED(rule->get_ApplicationName(&application)) && application &&
          SUCCEEDED(rule->get_Direction(&direction)) && fn::fromWide(application) == path)
        (direction == NET_FW_RULE_DIR_IN ? inbound : outbound) = true;
      SysFreeString(application);
      VariantClear(&item);
    }
    return true;
  }

  // Every call adds rules: whether they exist already is for the caller to ask first.
  bool authorizeApplication(fn::String const& path,
                            fn::String const& name,
                            bool inbound,
                            bool outbound) override {
    if (!initialize(true))
      return fail("Could not get elevated privileges!");
    if (!_policy)
      return fail("Firewall profile has not been initialized yet!");
    ComPtr<INetFwRules> rules;
    if (FAILED(_policy->get_Rules(rules.out())))
      return fail("Can't retrieve firewall rules!");
    long types = 0;
    if (FAILED(_policy->get_CurrentProfileTypes(&types)))
      return fail("Can't retrieve firewall profile types!");
    ComPtr<INetFwRule> rule;
    if (FAILED(CoCreateInstance(FW_RULE_CLSID, nullptr, CLSCTX_INPROC_SERVER, FW_RULE_IID,
                                rule.outVoid())))
      return fail("Can't create firewall rule!");
    Bstr ruleName(name), description("Allow incoming network traffic to " + name),
        application(path);
    rule->put_Name(ruleName.get());
    rule->put_Description(description.get());
    rule->put_ApplicationName(application.get());
    rule->put_Profiles(types);
    rule->put_Action(NET_FW_ACTION_ALLOW);
    rule->put_Enabled(VARIANT_TRUE);
    for (auto [wanted, direction] :
         {std::pair{inbound, NET_FW_RULE_DIR_IN}, std::pair{outbound, NET_FW_RULE_DIR_OUT}}) {
      if (!wanted)
        continue;
      rule->put_Direction(direction);
      if (FAILED(rules->Add(rule.get())))
        return fail("Couldn't add firewall rule!");
    }
    return true;
  }

private:
  void release() {
    _policy.reset();
    _elevated = false;
    uninitializeCom(_comResult);
  }

  /// Null until initialised.
  ComPtr<INetFwPolicy2> _policy;
  bool _elevated = false;
  HRESULT _comResult = E_FAIL;
};

}  // namespace

std::unique_ptr<FirewallConfigurator> FirewallConfigurator::createBaseConfigurator() {
  return std::make_unique<BaseFirewallConfigurator>();
}

std::unique_ptr<FirewallConfigurator> FirewallConfigurator::createAdvancedConfigurator() {
  return std::make_unique<AdvancedFirewallConfigurator>();
}

}  // namespace core
