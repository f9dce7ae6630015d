// A test double of the Windows Firewall objects that Wine stubs: an in-process COM server for NetFwPolicy2,
// NetFwRule, NetFwMgr, NetFwOpenPort and NetFwAuthorizedApplication. It keeps its rules and lists in the
// registry (TestFirewall.h) so that every process of the prefix sees one firewall and the tests can read what
// an action left behind: Rules\<n>, OpenPorts\<port>-<protocol> and AuthorizedApplications\<n>, one key per
// item, its properties as values; Journal, every call as "Object.Method", one a line. Switches, values of the
// same key: NoPolicy2 (NetFwPolicy2 not registered), NoRule2 (rules without INetFwRule2), CurrentProfileTypes
// (default 2), ExceptionsNotAllowed; and under Fail\ a DWORD named "Object.Method" makes that call answer the
// DWORD as its HRESULT. It enforces what Windows documents for the values it takes (each property's row
// below) and answers a missing item with 0x80070002; the calls the DLL never makes answer E_NOTIMPL.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <netfw.h>

#include <algorithm>
#include <cwctype>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "firewall/TestFirewall.h"

namespace QcTest {
namespace {

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
constexpr LONG kAnyProtocol = 256; // NET_FW_IP_PROTOCOL_ANY, which mingw-w64's headers lack

// Journals `method` and answers the HRESULT its Fail switch asks for.
HRESULT Call(const std::wstring& method)
{
    AppendLine(kFirewallRoot, L"Journal", method);
    return static_cast<HRESULT>(ReadDword(FirewallKey(L"Fail"), method.c_str(), S_OK));
}

// `method` journaled, then `body` unless the call is to fail.
template <typename TBody>
HRESULT Journaled(const std::wstring& method, TBody body)
{
    const HRESULT hResult = Call(method);
    return FAILED(hResult) ? hResult : body();
}

bool IsKeyword(const std::wstring& item, std::initializer_list<const wchar_t*> keywords)
{
    return std::any_of(keywords.begin(), keywords.end(),
                       [&](const wchar_t* k) { return _wcsicmp(k, item.c_str()) == 0; });
}

// Empty or "*" is "any", accepted wherever a list is; otherwise comma-separated
// items, none empty, each one accepted by `accepts`.
bool IsList(const std::wstring& list, bool (*accepts)(const std::wstring& item))
{
    for (size_t start = 0, comma = 0; list != L"*" && start < list.size(); start = comma + 1)
    {
        comma = std::min(list.find(L',', start), list.size());
        if (comma == start || comma + 1 == list.size() || !accepts(list.substr(start, comma - start)))
        {
            return false;
        }
    }
    return true;
}

// A decimal number of one to five digits in [0, high]; -1 otherwise.
long Number(const std::wstring& text, long high)
{
    const bool bDigits =
        !text.empty() && text.size() <= 5 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
    const long value = bDigits ? std::stol(text) : -1;
    return value <= high ? value : -1;
}

// A port, a range of ports "low-high" or a port keyword.
bool IsPortItem(const std::wstring& item)
{
    const size_t dash = item.find(L'-');
    const long low = Number(item.substr(0, dash), 65535);
    const long high = dash == std::wstring::npos ? low : Number(item.substr(dash + 1), 65535);
    return IsKeyword(item, {L"RPC", L"RPC-EPMap", L"IPHTTPS", L"Teredo", L"Ply2Disc", L"mDNS"}) ||
           (low >= 0 && high >= low);
}

bool IsAddress(const std::wstring& text)
{
    BYTE buffer[16];
    return InetPtonW(text.find(L':') != std::wstring::npos ? AF_INET6 : AF_INET, text.c_str(), buffer) == 1;
}

// An address, a subnet "address/prefix length" or "address/mask", a range
// "low-high" or an address keyword (a service name is none of these).
bool IsAddressItem(const std::wstring& item)
{
    const size_t cut = item.find_first_of(L"/-");
    const std::wstring second = cut == std::wstring::npos ? item : item.substr(cut + 1);
    const bool bPrefixLength = cut != std::wstring::npos && item[cut] == L'/' && Number(second, 128) >= 0;
    return IsKeyword(item, {L"LocalSubnet", L"DNS", L"DHCP", L"WINS", L"DefaultGateway"}) ||
           (IsAddress(item.substr(0, cut)) && (bPrefixLength || IsAddress(second)));
}

// A property of a rule, an open port or an authorized program: its registry
// value, its default, whether the documentation calls it required (no empty
// text, no 0) and, where it limits the values further, the rule they must meet.
struct Property
{
    const wchar_t* name;
    LONG lDefault;
    bool bRequired;
    bool (*accepts)(const class CItem& item, const std::wstring& text, LONG number);
};

// A kind of item: the object its calls are journaled as, and its properties.
struct Kind
{
    const wchar_t* object;
    std::vector<Property> properties;
};

// clang-format off
// A call the DLL never makes.
#define QC_UNUSED(Method, ...) STDMETHODIMP Method(__VA_ARGS__) override { return E_NOTIMPL; }
// A property the DLL neither reads nor sets, one of those a profile indexes, and a list's count and enumerator.
#define QC_UNUSED_PROPERTY(Property, Type) QC_UNUSED(get_##Property, Type*) QC_UNUSED(put_##Property, Type)
#define QC_UNUSED_PROFILE_PROPERTY(Property, Type)                                                                     \
    QC_UNUSED(get_##Property, NET_FW_PROFILE_TYPE2, Type*) QC_UNUSED(put_##Property, NET_FW_PROFILE_TYPE2, Type)
#define QC_UNUSED_COUNT_AND_ENUM QC_UNUSED(get_Count, LONG*) QC_UNUSED(get__NewEnum, IUnknown**)
// A property the DLL sets through the item's row of the same name; it never reads it.
#define QC_SET(Property, Type)   \
    QC_UNUSED(get_##Property, Type*) \
    STDMETHODIMP put_##Property(Type value) override { return Put(L## #Property, value); }
// clang-format on

// An object of the interfaces TInterfaces... (one object may serve several
// views of one state).
template <typename... TInterfaces>
class CObject : public CComObject<CNoTypeInfo<TInterfaces>...>
{
protected:
    void* Find(REFIID riid) override { return InterfaceOf<TInterfaces...>(this, riid); }
};

// Another interface of the same object, as the answer of `method`.
template <typename TInterface, typename TObject>
HRESULT View(const wchar_t* method, TObject* pObject, TInterface** ppView)
{
    return Journaled(method, [&] {
        *ppView = pObject;
        pObject->AddRef();
        return S_OK;
    });
}

// A rule, an open port or an authorized program, as its kind says (one class
// serves the three interfaces, answering only its kind's): the values put so
// far, in memory until the item is an entry of a list (added, or found
// there), and from then on in the entry.
class CItem : public CObject<INetFwRule2, INetFwOpenPort, INetFwAuthorizedApplication>
{
public:
    explicit CItem(const Kind& kind) : m_kind(kind) {}

    // The DLL only asks items found in a list.
    STDMETHODIMP get_Enabled(VARIANT_BOOL* pEnabled) override
    {
        return Journaled(m_kind.object + std::wstring(L".GetEnabled"), [&] {
            *pEnabled = ReadDword(m_key, L"Enabled", 0) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
            return S_OK;
        });
    }
    STDMETHODIMP put_Enabled(VARIANT_BOOL value) override { return Put(L"Enabled", value); }
    QC_SET(Name, BSTR)
    QC_SET(Description, BSTR)
    QC_SET(ApplicationName, BSTR)
    QC_UNUSED_PROPERTY(ServiceName, BSTR)
    QC_SET(Protocol, LONG)
    QC_SET(Protocol, NET_FW_IP_PROTOCOL)
    QC_SET(LocalPorts, BSTR)
    QC_SET(RemotePorts, BSTR)
    QC_SET(LocalAddresses, BSTR)
    QC_SET(RemoteAddresses, BSTR)
    QC_UNUSED_PROPERTY(IcmpTypesAndCodes, BSTR)
    QC_SET(Direction, NET_FW_RULE_DIRECTION)
    QC_UNUSED_PROPERTY(Interfaces, VARIANT)
    QC_UNUSED_PROPERTY(InterfaceTypes, BSTR)
    QC_UNUSED_PROPERTY(Grouping, BSTR)
    QC_SET(Profiles, LONG)
    QC_SET(EdgeTraversal, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(Action, NET_FW_ACTION)
    QC_SET(EdgeTraversalOptions, LONG)
    QC_UNUSED_PROPERTY(IpVersion, NET_FW_IP_VERSION)
    QC_SET(Port, LONG)
    QC_UNUSED_PROPERTY(Scope, NET_FW_SCOPE)
    QC_UNUSED(get_BuiltIn, VARIANT_BOOL*)
    QC_SET(ProcessImageFileName, BSTR)

    // The number put, or the property's default.
    LONG Number(const wchar_t* name) const
    {
        const auto found = m_values.find(name);
        return found != m_values.end() ? found->second.number : PropertyOf(name).lDefault;
    }
    // A text put (of a required property, once the item is complete).
    const std::wstring& Text(const wchar_t* name) const { return m_values.at(name).text; }
    bool IsComplete() const
    {
        return std::all_of(m_kind.properties.begin(), m_kind.properties.end(), [&](const Property& property) {
            return !property.bRequired || m_values.count(property.name);
        });
    }
    // The item is `entry` of a list from now on: the values put so far go there.
    void Bind(const std::wstring& entry)
    {
        m_key = FirewallKey(entry);
        for (const auto& [name, value] : m_values)
        {
            Store(name, value);
        }
    }

protected:
    // Under the NoRule2 switch a rule is of the older kind, without INetFwRule2.
    void* Find(REFIID riid) override
    {
        const std::wstring object = m_kind.object;
        if (object != L"Rule")
        {
            return object == L"OpenPort" ? InterfaceOf<INetFwOpenPort>(this, riid)
                                         : InterfaceOf<INetFwAuthorizedApplication>(this, riid);
        }
        const bool bHidden = riid == __uuidof(INetFwRule2) && ReadDword(kFirewallRoot, L"NoRule2", 0) != 0;
        return bHidden ? nullptr : InterfaceOf<INetFwRule2, INetFwRule>(this, riid);
    }

private:
    struct Value
    {
        bool bText;
        std::wstring text;
        LONG number;
    };

    HRESULT Put(const wchar_t* name, BSTR text) { return Set(name, {true, text != nullptr ? text : L"", 0}); }
    // A VARIANT_BOOL is kept as 0 or 1.
    template <typename TNumber>
    HRESULT Put(const wchar_t* name, TNumber number)
    {
        const bool bFlag = std::is_same<TNumber, VARIANT_BOOL>::value;
        return Set(name, {false, L"", bFlag ? static_cast<LONG>(number != 0) : static_cast<LONG>(number)});
    }
    const Property& PropertyOf(const std::wstring& name) const
    {
        return *std::find_if(m_kind.properties.begin(), m_kind.properties.end(),
                             [&](const Property& property) { return name == property.name; });
    }
    HRESULT Set(const wchar_t* name, const Value& value)
    {
        return Journaled(m_kind.object + std::wstring(L".") + name, [&] {
            const Property& property = PropertyOf(name);
            if ((property.bRequired && value.text.empty() && value.number == 0) ||
                (property.accepts != nullptr && !property.accepts(*this, value.text, value.number)))
            {
                return E_INVALIDARG;
            }
            m_values[name] = value;
            Store(name, value);
            return S_OK;
        });
    }
    void Store(const std::wstring& name, const Value& value) const
    {
        const DWORD number = static_cast<DWORD>(value.number);
        if (!m_key.empty() && value.bText)
        {
            WriteText(m_key, name.c_str(), value.text);
        }
        else if (!m_key.empty())
        {
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, m_key.c_str(), name.c_str(), REG_DWORD, &number, sizeof(number));
        }
    }

    const Kind& m_kind;
    std::map<std::wstring, Value> m_values; // by property name
    std::wstring m_key;                     // once in a list
};

// The rules of the rows below, quoting the documentation where it words them.
struct Accepts
{
    template <LONG kLow, LONG kHigh>
    static bool Range(const CItem&, const std::wstring&, LONG number)
    {
        return number >= kLow && number <= kHigh;
    }
    // A rule's name and description: "The string must not contain the "|" character."
    static bool NoBar(const CItem&, const std::wstring& text, LONG) { return text.find(L'|') == std::wstring::npos; }
    static bool TcpOrUdp(const CItem&, const std::wstring&, LONG protocol)
    {
        return protocol == NET_FW_IP_PROTOCOL_TCP || protocol == NET_FW_IP_PROTOCOL_UDP;
    }
    // Ports only with TCP or UDP; "any" with every protocol.
    static bool Ports(const CItem& item, const std::wstring& text, LONG)
    {
        return text.empty() || text == L"*" ||
               (TcpOrUdp(item, text, item.Number(L"Protocol")) && IsList(text, IsPortItem));
    }
    static bool Addresses(const CItem&, const std::wstring& text, LONG) { return IsList(text, IsAddressItem); }
    // A mask of one or more of the known profiles, or all of them.
    static bool Profiles(const CItem&, const std::wstring&, LONG mask)
    {
        return mask == NET_FW_PROFILE2_ALL || (mask != 0 && (mask & ~7) == 0);
    }
    // "The image file name must be a fully qualified path and reference an
    // existing application. The name may contain environment variables."
    static bool ImagePath(const CItem&, const std::wstring& text, LONG)
    {
        wchar_t path[MAX_PATH] = {};
        const DWORD length = ExpandEnvironmentStringsW(text.c_str(), path, MAX_PATH);
        const bool bQualified =
            (iswalpha(path[0]) && path[1] == L':' && path[2] == L'\\') || (path[0] == L'\\' && path[1] == L'\\');
        const DWORD attributes = GetFileAttributesW(path);
        return length > 0 && length <= MAX_PATH && bQualified && attributes != INVALID_FILE_ATTRIBUTES &&
               (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    }
};

// clang-format off
const Kind kRule = {L"Rule", {
    {L"Name", 0, true, Accepts::NoBar},
    {L"Description", 0, false, Accepts::NoBar},
    {L"ApplicationName", 0, false, nullptr},
    {L"Protocol", kAnyProtocol, false, Accepts::Range<0, kAnyProtocol>},
    {L"LocalPorts", 0, false, Accepts::Ports},
    {L"RemotePorts", 0, false, Accepts::Ports},
    {L"LocalAddresses", 0, false, Accepts::Addresses},
    {L"RemoteAddresses", 0, false, Accepts::Addresses},
    {L"Direction", NET_FW_RULE_DIR_IN, false, Accepts::Range<NET_FW_RULE_DIR_IN, NET_FW_RULE_DIR_OUT>},
    {L"Enabled", 0, false, nullptr},
    {L"Profiles", NET_FW_PROFILE2_ALL, false, Accepts::Profiles},
    {L"EdgeTraversal", 0, false, nullptr},
    {L"EdgeTraversalOptions", 0, false, Accepts::Range<0, 3>},
}};
const Kind kOpenPort = {L"OpenPort", {
    {L"Name", 0, true, nullptr},
    {L"Port", 0, true, Accepts::Range<1, 65535>},
    {L"Protocol", NET_FW_IP_PROTOCOL_TCP, false, Accepts::TcpOrUdp},
    {L"RemoteAddresses", 0, false, Accepts::Addresses},
    {L"Enabled", 1, false, nullptr},
}};
const Kind kAuthorizedApp = {L"AuthorizedApp", {
    {L"Name", 0, true, nullptr},
    {L"ProcessImageFileName", 0, true, Accepts::ImagePath},
    {L"RemoteAddresses", 0, false, Accepts::Addresses},
    {L"Enabled", 1, false, nullptr},
}};
// clang-format on

// The class a COM class creates: an item of kind kKind.
template <const Kind& kKind>
struct CItemOf : CItem
{
    CItemOf() : CItem(kKind) {}
};

// The entry of `list` whose value `name` is `text`; empty when there is none.
std::wstring FindEntry(const std::wstring& list, const wchar_t* name, const wchar_t* text)
{
    for (const std::wstring& entry : NamesIn(FirewallKey(list)))
    {
        std::wstring value;
        if (text != nullptr && ReadText(FirewallKey(list + L"\\" + entry), name, value) && value == text)
        {
            return list + L"\\" + entry;
        }
    }
    return L"";
}

// An entry is there while it has values (the firewall never leaves one without).
bool Exists(const std::wstring& entry)
{
    return !NamesIn(FirewallKey(entry), true).empty();
}

// A new numbered entry of `list`: the first free number.
std::wstring NewEntry(const std::wstring& list)
{
    int number = 1;
    while (Exists(list + L"\\" + std::to_wstring(number)))
    {
        ++number;
    }
    return list + L"\\" + std::to_wstring(number);
}

// Item: the item of `entry` for *ppItem; not found when the entry is missing.
template <typename TItem, typename TInterface>
HRESULT ItemOf(const wchar_t* method, const std::wstring& entry, TInterface** ppItem)
{
    *ppItem = nullptr;
    return Journaled(method, [&] {
        TItem* pItem = entry.empty() || !Exists(entry) ? nullptr : new (std::nothrow) TItem();
        if (pItem != nullptr)
        {
            pItem->Bind(entry);
        }
        *ppItem = pItem;
        return pItem != nullptr ? S_OK : kNotFound;
    });
}

// Add: a complete item of this server goes into the entry `entryOf` names.
template <typename TItem, typename TInterface, typename TEntryOf>
HRESULT AddTo(const wchar_t* method, TInterface* pInterface, TEntryOf entryOf)
{
    return Journaled(method, [&] {
        TItem* pItem = dynamic_cast<TItem*>(pInterface);
        if (pItem == nullptr || !pItem->IsComplete())
        {
            return E_INVALIDARG;
        }
        pItem->Bind(entryOf(*pItem));
        return S_OK;
    });
}

// Remove: the entry goes; not found when it is missing (an empty entry is none: it would name the root).
HRESULT RemoveFrom(const wchar_t* method, const std::wstring& entry)
{
    return Journaled(method, [&] {
        const bool bGone = !entry.empty() && RegDeleteTreeW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str()) == 0;
        return bGone ? S_OK : kNotFound;
    });
}

// The rule interface: the policy and its rules, one object. Rules are found
// by name; a new one gets a new entry, and a removal takes every rule of the
// name (none is no failure).
class CPolicy2 : public CObject<INetFwPolicy2, INetFwRules>
{
public:
    STDMETHODIMP get_CurrentProfileTypes(LONG* pProfiles) override
    {
        return Journaled(L"Policy2.CurrentProfileTypes", [&] {
            *pProfiles = static_cast<LONG>(ReadDword(kFirewallRoot, L"CurrentProfileTypes", NET_FW_PROFILE2_PRIVATE));
            return S_OK;
        });
    }
    STDMETHODIMP get_Rules(INetFwRules** ppRules) override { return View(L"Policy2.Rules", this, ppRules); }
    QC_UNUSED_PROFILE_PROPERTY(FirewallEnabled, VARIANT_BOOL)
    QC_UNUSED_PROFILE_PROPERTY(ExcludedInterfaces, VARIANT)
    QC_UNUSED_PROFILE_PROPERTY(BlockAllInboundTraffic, VARIANT_BOOL)
    QC_UNUSED_PROFILE_PROPERTY(NotificationsDisabled, VARIANT_BOOL)
    QC_UNUSED_PROFILE_PROPERTY(UnicastResponsesToMulticastBroadcastDisabled, VARIANT_BOOL)
    QC_UNUSED(get_ServiceRestriction, INetFwServiceRestriction**)
    QC_UNUSED(EnableRuleGroup, LONG, BSTR, VARIANT_BOOL)
    QC_UNUSED(IsRuleGroupEnabled, LONG, BSTR, VARIANT_BOOL*)
    QC_UNUSED(RestoreLocalFirewallDefaults, void)
    QC_UNUSED_PROFILE_PROPERTY(DefaultInboundAction, NET_FW_ACTION)
    QC_UNUSED_PROFILE_PROPERTY(DefaultOutboundAction, NET_FW_ACTION)
    QC_UNUSED(get_IsRuleGroupCurrentlyEnabled, BSTR, VARIANT_BOOL*)
    QC_UNUSED(get_LocalPolicyModifyState, NET_FW_MODIFY_STATE*)

    QC_UNUSED_COUNT_AND_ENUM
    STDMETHODIMP Item(BSTR name, INetFwRule** ppRule) override
    {
        return ItemOf<CItemOf<kRule>>(L"Rules.Item", FindEntry(L"Rules", L"Name", name), ppRule);
    }
    STDMETHODIMP Add(INetFwRule* pRule) override
    {
        return AddTo<CItemOf<kRule>>(L"Rules.Add", pRule, [](const CItem&) { return NewEntry(L"Rules"); });
    }
    STDMETHODIMP Remove(BSTR name) override
    {
        return Journaled(L"Rules.Remove", [&] {
            for (std::wstring entry; !(entry = FindEntry(L"Rules", L"Name", name)).empty();)
            {
                RegDeleteTreeW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str());
            }
            return S_OK;
        });
    }
};

// Open ports are keyed by port and protocol: an open port of the same pair is replaced.
std::wstring PortEntry(LONG port, LONG protocol)
{
    return L"OpenPorts\\" + std::to_wstring(port) + L"-" + std::to_wstring(protocol);
}

// Authorized programs are keyed by image path: a program already listed is replaced.
std::wstring AppEntry(const wchar_t* path)
{
    return FindEntry(L"AuthorizedApplications", L"ProcessImageFileName", path);
}

// The legacy firewall: the manager, its local policy, the current profile and
// the profile's lists of open ports and authorized programs, one object.
class CMgr : public CObject<INetFwMgr, INetFwPolicy, INetFwProfile, INetFwOpenPorts, INetFwAuthorizedApplications>
{
public:
    STDMETHODIMP get_LocalPolicy(INetFwPolicy** ppPolicy) override { return View(L"Mgr.LocalPolicy", this, ppPolicy); }
    QC_UNUSED(get_CurrentProfileType, NET_FW_PROFILE_TYPE*)
    QC_UNUSED(RestoreDefaults, void)
    QC_UNUSED(IsPortAllowed, BSTR, NET_FW_IP_VERSION, LONG, BSTR, NET_FW_IP_PROTOCOL, VARIANT*, VARIANT*)
    QC_UNUSED(IsIcmpTypeAllowed, NET_FW_IP_VERSION, BSTR, BYTE, VARIANT*, VARIANT*)

    STDMETHODIMP get_CurrentProfile(INetFwProfile** ppProfile) override
    {
        return View(L"Policy.CurrentProfile", this, ppProfile);
    }
    QC_UNUSED(GetProfileByType, NET_FW_PROFILE_TYPE, INetFwProfile**)

    // The value is written before the call may fail, as a failing getter may leave it.
    STDMETHODIMP get_ExceptionsNotAllowed(VARIANT_BOOL* pNotAllowed) override
    {
        *pNotAllowed = ReadDword(kFirewallRoot, L"ExceptionsNotAllowed", 0) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        return Call(L"Profile.ExceptionsNotAllowed");
    }
    STDMETHODIMP get_GloballyOpenPorts(INetFwOpenPorts** ppPorts) override
    {
        return View(L"Profile.GloballyOpenPorts", this, ppPorts);
    }
    STDMETHODIMP get_AuthorizedApplications(INetFwAuthorizedApplications** ppApps) override
    {
        return View(L"Profile.AuthorizedApplications", this, ppApps);
    }
    QC_UNUSED(get_Type, NET_FW_PROFILE_TYPE*)
    QC_UNUSED_PROPERTY(FirewallEnabled, VARIANT_BOOL)
    QC_UNUSED(put_ExceptionsNotAllowed, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(NotificationsDisabled, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(UnicastResponsesToMulticastBroadcastDisabled, VARIANT_BOOL)
    QC_UNUSED(get_RemoteAdminSettings, INetFwRemoteAdminSettings**)
    QC_UNUSED(get_IcmpSettings, INetFwIcmpSettings**)
    QC_UNUSED(get_Services, INetFwServices**)

    QC_UNUSED_COUNT_AND_ENUM
    STDMETHODIMP Item(LONG port, NET_FW_IP_PROTOCOL protocol, INetFwOpenPort** ppPort) override
    {
        return ItemOf<CItemOf<kOpenPort>>(L"OpenPorts.Item", PortEntry(port, protocol), ppPort);
    }
    STDMETHODIMP Add(INetFwOpenPort* pPort) override
    {
        return AddTo<CItemOf<kOpenPort>>(L"OpenPorts.Add", pPort, [](const CItem& item) {
            const std::wstring entry = PortEntry(item.Number(L"Port"), item.Number(L"Protocol"));
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str());
            return entry;
        });
    }
    STDMETHODIMP Remove(LONG port, NET_FW_IP_PROTOCOL protocol) override
    {
        return RemoveFrom(L"OpenPorts.Remove", PortEntry(port, protocol));
    }
    STDMETHODIMP Item(BSTR path, INetFwAuthorizedApplication** ppApp) override
    {
        return ItemOf<CItemOf<kAuthorizedApp>>(L"AuthorizedApps.Item", AppEntry(path), ppApp);
    }
    STDMETHODIMP Add(INetFwAuthorizedApplication* pApp) override
    {
        return AddTo<CItemOf<kAuthorizedApp>>(L"AuthorizedApps.Add", pApp, [](const CItem& item) {
            const std::wstring entry = AppEntry(item.Text(L"ProcessImageFileName").c_str());
            return entry.empty() ? NewEntry(L"AuthorizedApplications") : entry;
        });
    }
    STDMETHODIMP Remove(BSTR path) override { return RemoveFrom(L"AuthorizedApps.Remove", AppEntry(path)); }
};

// The classes served here, by the name their creation is journaled with.
const struct
{
    CLSID clsid;
    const wchar_t* name;
    HRESULT (*classObject)(REFIID riid, void** ppv);
} kClasses[] = {
    {__uuidof(NetFwPolicy2), L"NetFwPolicy2", ClassObject<CPolicy2>},
    {__uuidof(NetFwRule), L"NetFwRule", ClassObject<CItemOf<kRule>>},
    {__uuidof(NetFwMgr), L"NetFwMgr", ClassObject<CMgr>},
    {__uuidof(NetFwOpenPort), L"NetFwOpenPort", ClassObject<CItemOf<kOpenPort>>},
    {__uuidof(NetFwAuthorizedApplication), L"NetFwAuthorizedApplication", ClassObject<CItemOf<kAuthorizedApp>>}};

// Wine's registration while this one replaces it (not part of the state).
constexpr const wchar_t* kSaved = L"Software\\QuillcastTest\\FirewallSavedRegistration";

} // namespace
} // namespace QcTest

extern "C" IMAGE_DOS_HEADER __ImageBase; // this module

// COM asks for the class object at every creation: each is journaled as
// "Create.<class>" and may be switched to fail, and NetFwPolicy2 can play "not
// registered" (the NoPolicy2 switch). (Wine's COM answers a failure here with
// REGDB_E_CLASSNOTREG when the caller allowed a server out of process.)
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    *ppv = nullptr;
    if (clsid == __uuidof(NetFwPolicy2) && QcTest::ReadDword(QcTest::kFirewallRoot, L"NoPolicy2", 0) != 0)
    {
        return REGDB_E_CLASSNOTREG;
    }
    for (const auto& entry : QcTest::kClasses)
    {
        if (clsid == entry.clsid)
        {
            return QcTest::Journaled(std::wstring(L"Create.") + entry.name,
                                     [&] { return entry.classObject(riid, ppv); });
        }
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

// The five classes served here; the registrations they replace are kept (once)
// for DllUnregisterServer to put back.
extern "C" HRESULT WINAPI DllRegisterServer()
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), self, MAX_PATH);
    const bool bReplaced =
        std::all_of(std::begin(QcTest::kClasses), std::end(QcTest::kClasses),
                    [&](const auto& entry) { return QcTest::ReplaceServer(entry.clsid, self, QcTest::kSaved); });
    return bReplaced ? S_OK : E_ACCESSDENIED;
}

extern "C" HRESULT WINAPI DllUnregisterServer()
{
    bool bRestored = true;
    for (const auto& entry : QcTest::kClasses)
    {
        bRestored = QcTest::RestoreServer(entry.clsid, QcTest::kSaved) && bRestored;
    }
    return bRestored ? S_OK : E_FAIL;
}
