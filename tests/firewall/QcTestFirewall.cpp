// A test double of the Windows Firewall objects that Wine stubs: an in-process
// COM server for NetFwPolicy2, NetFwRule, NetFwMgr, NetFwOpenPort and
// NetFwAuthorizedApplication. It keeps its rules and lists in the registry
// (TestFirewall.h) so that every process of the prefix sees one firewall and
// the tests can read what an action left behind:
//   Rules\<n>                     one key per rule, its properties as values
//   OpenPorts\<port>-<protocol>   AuthorizedApplications\<n>
//   Journal                       every call as "Object.Method", one a line
// Switches, values of the same key: NoPolicy2 (NetFwPolicy2 not registered),
// NoRule2 (rules without INetFwRule2), CurrentProfileTypes (default 2),
// ExceptionsNotAllowed; and under Fail\ a DWORD named "Object.Method" makes
// that call answer the DWORD as its HRESULT.
// It enforces what Windows documents for the values it takes (each property's
// row below) and answers a missing item with 0x80070002; the calls the DLL
// never makes answer E_NOTIMPL.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <netfw.h>

#include <algorithm>
#include <cwctype>
#include <string>
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

class CItem;

// A property of a rule, an open port or an authorized program: its registry
// value, its kind, its default (a text is stored once it is set), whether the
// documentation calls it required (no empty text, no 0) and, where it limits
// the values further, the rule they must meet.
enum class Kind
{
    Text,
    Number,
    Flag // a VARIANT_BOOL, stored as 0 or 1
};
struct Property
{
    const wchar_t* name;
    Kind kind;
    LONG lDefault;
    bool bRequired;
    bool (*accepts)(const CItem& item, const std::wstring& text, LONG number);
};

// A rule, an open port or an authorized program: its properties in memory
// and, once it is in a list (or read from one), in its registry key too.
class CItem
{
public:
    template <size_t N>
    CItem(const wchar_t* object, const Property (&properties)[N]) : m_object(object)
    {
        for (const Property& property : properties)
        {
            m_values.push_back({&property, property.kind != Kind::Text, L"", property.lDefault});
        }
    }
    virtual ~CItem() = default;

    HRESULT Put(const wchar_t* name, const wchar_t* text) { return Set(name, text != nullptr ? text : L"", 0); }
    HRESULT Put(const wchar_t* name, LONG number) { return Set(name, L"", number); }
    HRESULT GetEnabled(VARIANT_BOOL* pEnabled) const
    {
        return Journaled(m_object + L".GetEnabled", [&] {
            *pEnabled = Number(L"Enabled") != 0 ? VARIANT_TRUE : VARIANT_FALSE;
            return S_OK;
        });
    }
    const std::wstring& Text(const wchar_t* name) const { return m_values[IndexOf(name)].text; }
    LONG Number(const wchar_t* name) const { return m_values[IndexOf(name)].number; }
    // Every required property is set: the item may go into a list.
    bool IsComplete() const
    {
        return std::none_of(m_values.begin(), m_values.end(), [](const Value& value) {
            return value.pProperty->bRequired && (!value.bSet || (value.text.empty() && value.number == 0));
        });
    }

    // Binds the item to the entry `key` (under the root); written there when `bWrite`, read from it otherwise.
    void Bind(const std::wstring& key, bool bWrite)
    {
        m_key = FirewallKey(key);
        for (Value& value : m_values)
        {
            if (bWrite)
            {
                Store(value);
                continue;
            }
            value.bSet = value.bSet || ReadText(m_key, value.pProperty->name, value.text);
            value.number = static_cast<LONG>(ReadDword(m_key, value.pProperty->name, value.number));
        }
    }

private:
    struct Value
    {
        const Property* pProperty;
        bool bSet;
        std::wstring text;
        LONG number;
    };

    size_t IndexOf(const wchar_t* name) const
    {
        return std::find_if(m_values.begin(), m_values.end(),
                            [&](const Value& value) { return wcscmp(value.pProperty->name, name) == 0; }) -
               m_values.begin();
    }
    HRESULT Set(const wchar_t* name, const std::wstring& text, LONG number)
    {
        return Journaled(m_object + L"." + name, [&] {
            Value& value = m_values[IndexOf(name)];
            const Property& property = *value.pProperty;
            const LONG stored = property.kind == Kind::Flag ? (number != 0 ? 1 : 0) : number;
            if ((property.bRequired && text.empty() && stored == 0) ||
                (property.accepts != nullptr && !property.accepts(*this, text, stored)))
            {
                return E_INVALIDARG;
            }
            value = {&property, true, text, stored};
            Store(value);
            return S_OK;
        });
    }
    void Store(const Value& value) const
    {
        const DWORD number = static_cast<DWORD>(value.number);
        if (m_key.empty() || !value.bSet)
        {
            return;
        }
        if (value.pProperty->kind == Kind::Text)
        {
            WriteText(m_key, value.pProperty->name, value.text);
            return;
        }
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, m_key.c_str(), value.pProperty->name, REG_DWORD, &number, sizeof(number));
    }

    std::wstring m_object;
    std::vector<Value> m_values;
    std::wstring m_key; // once in a list
};

// The documented rules for property values, quoting the documentation where
// it words them; the last ones are the rules of the rows below.
struct Accepts
{
    // Empty or "*" is "any", accepted wherever a list is.
    static bool IsAny(const std::wstring& list) { return list.empty() || list == L"*"; }
    // Comma-separated items, none empty, each one accepted by `accepts`.
    static bool IsList(const std::wstring& list, bool (*accepts)(const std::wstring& item))
    {
        std::wstring rest = IsAny(list) ? L"" : list + L",";
        for (size_t comma = 0; !rest.empty(); rest.erase(0, comma + 1))
        {
            comma = rest.find(L',');
            if (comma == 0 || !accepts(rest.substr(0, comma)))
            {
                return false;
            }
        }
        return true;
    }
    static bool IsKeyword(const std::wstring& item, std::initializer_list<const wchar_t*> keywords)
    {
        return std::any_of(keywords.begin(), keywords.end(),
                           [&](const wchar_t* k) { return _wcsicmp(k, item.c_str()) == 0; });
    }
    // A decimal number of at most five digits in [0, high]; -1 otherwise.
    static long Number(const std::wstring& text, long high)
    {
        const bool bDigits =
            !text.empty() && text.size() <= 5 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
        const long value = bDigits ? std::stol(text) : -1;
        return value <= high ? value : -1;
    }
    // A port, a range of ports "low-high" or a port keyword.
    static bool IsPortItem(const std::wstring& item)
    {
        const size_t dash = item.find(L'-');
        const long low = Number(item.substr(0, dash), 65535);
        const long high = dash == std::wstring::npos ? low : Number(item.substr(dash + 1), 65535);
        return IsKeyword(item, {L"RPC", L"RPC-EPMap", L"IPHTTPS", L"Teredo", L"Ply2Disc", L"mDNS"}) ||
               (low >= 0 && high >= low);
    }
    static bool IsAddress(const std::wstring& text)
    {
        BYTE buffer[16];
        return InetPtonW(text.find(L':') != std::wstring::npos ? AF_INET6 : AF_INET, text.c_str(), buffer) == 1;
    }
    // An address, a subnet "address/prefix length" or "address/mask", a range
    // "low-high" or an address keyword (a service name is none of these).
    static bool IsAddressItem(const std::wstring& item)
    {
        const size_t cut = item.find_first_of(L"/-");
        const std::wstring second = cut == std::wstring::npos ? item : item.substr(cut + 1);
        const bool bPrefixLength = cut != std::wstring::npos && item[cut] == L'/' && Number(second, 128) >= 0;
        return IsKeyword(item, {L"LocalSubnet", L"DNS", L"DHCP", L"WINS", L"DefaultGateway"}) ||
               (IsAddress(item.substr(0, cut)) && (bPrefixLength || IsAddress(second)));
    }

    template <LONG kLow, LONG kHigh>
    static bool Range(const CItem&, const std::wstring&, LONG number)
    {
        return number >= kLow && number <= kHigh;
    }
    // A rule's name and description: "The string must not contain the "|" character."
    static bool NoBar(const CItem&, const std::wstring& text, LONG) { return text.find(L'|') == std::wstring::npos; }
    // Ports only with TCP or UDP; "any" with every protocol.
    static bool Ports(const CItem& item, const std::wstring& text, LONG)
    {
        return IsAny(text) || (TcpOrUdp(item, text, item.Number(L"Protocol")) && IsList(text, IsPortItem));
    }
    static bool Addresses(const CItem&, const std::wstring& text, LONG) { return IsList(text, IsAddressItem); }
    // A mask of the known profiles, or all of them.
    static bool Profiles(const CItem&, const std::wstring&, LONG mask)
    {
        return mask == NET_FW_PROFILE2_ALL || (mask & ~7) == 0;
    }
    static bool TcpOrUdp(const CItem&, const std::wstring&, LONG protocol)
    {
        return protocol == NET_FW_IP_PROTOCOL_TCP || protocol == NET_FW_IP_PROTOCOL_UDP;
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
const Property kRuleProperties[] = {
    {L"Name", Kind::Text, 0, true, Accepts::NoBar},
    {L"Description", Kind::Text, 0, false, Accepts::NoBar},
    {L"ApplicationName", Kind::Text, 0, false, nullptr},
    {L"ServiceName", Kind::Text, 0, false, nullptr},
    {L"Protocol", Kind::Number, kAnyProtocol, false, Accepts::Range<0, kAnyProtocol>},
    {L"LocalPorts", Kind::Text, 0, false, Accepts::Ports},
    {L"RemotePorts", Kind::Text, 0, false, Accepts::Ports},
    {L"LocalAddresses", Kind::Text, 0, false, Accepts::Addresses},
    {L"RemoteAddresses", Kind::Text, 0, false, Accepts::Addresses},
    {L"Direction", Kind::Number, NET_FW_RULE_DIR_IN, false, Accepts::Range<NET_FW_RULE_DIR_IN, NET_FW_RULE_DIR_OUT>},
    {L"Enabled", Kind::Flag, 0, false, nullptr},
    {L"Profiles", Kind::Number, NET_FW_PROFILE2_ALL, true, Accepts::Profiles},
    {L"EdgeTraversal", Kind::Flag, 0, false, nullptr},
    {L"EdgeTraversalOptions", Kind::Number, 0, false, Accepts::Range<0, 3>},
};
const Property kOpenPortProperties[] = {
    {L"Name", Kind::Text, 0, true, nullptr},
    {L"Port", Kind::Number, 0, true, Accepts::Range<1, 65535>},
    {L"Protocol", Kind::Number, NET_FW_IP_PROTOCOL_TCP, false, Accepts::TcpOrUdp},
    {L"RemoteAddresses", Kind::Text, 0, false, Accepts::Addresses},
    {L"Enabled", Kind::Flag, 1, false, nullptr},
};
const Property kAuthorizedAppProperties[] = {
    {L"Name", Kind::Text, 0, true, nullptr},
    {L"ProcessImageFileName", Kind::Text, 0, true, Accepts::ImagePath},
    {L"RemoteAddresses", Kind::Text, 0, false, Accepts::Addresses},
    {L"Enabled", Kind::Flag, 1, false, nullptr},
};
// clang-format on

// ---- the COM objects -------------------------------------------------------

// A call the DLL never makes.
#define QC_UNUSED(Method, ...)                                                                                         \
    STDMETHODIMP Method(__VA_ARGS__) override                                                                          \
    {                                                                                                                  \
        return E_NOTIMPL;                                                                                              \
    }
// A property the DLL neither reads nor sets, one of those a profile indexes, and a list's count and enumerator.
#define QC_UNUSED_PROPERTY(Property, Type) QC_UNUSED(get_##Property, Type*) QC_UNUSED(put_##Property, Type)
#define QC_UNUSED_PROFILE_PROPERTY(Property, Type)                                                                     \
    QC_UNUSED(get_##Property, NET_FW_PROFILE_TYPE2, Type*) QC_UNUSED(put_##Property, NET_FW_PROFILE_TYPE2, Type)
#define QC_UNUSED_COUNT_AND_ENUM QC_UNUSED(get_Count, LONG*) QC_UNUSED(get__NewEnum, IUnknown**)
// A property the DLL sets through the item's row of the same name; it never reads it.
#define QC_SET(Property, Type)                                                                                         \
    QC_UNUSED(get_##Property, Type*)                                                                                   \
    STDMETHODIMP put_##Property(Type value) override                                                                   \
    {                                                                                                                  \
        return Put(L## #Property, value);                                                                              \
    }

template <typename TInterface>
class CObject : public CComObject<CNoTypeInfo<TInterface>>
{
protected:
    void* Find(REFIID riid) override { return InterfaceOf<TInterface>(this, riid); }
};

// A new object of class TObject for *ppv.
template <typename TObject, typename TInterface>
HRESULT Make(TInterface** ppv)
{
    *ppv = new (std::nothrow) TObject();
    return *ppv != nullptr ? S_OK : E_OUTOFMEMORY;
}

// ---- the lists: entries of the registry state ------------------------------

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

// A new numbered entry of `list`: the numbers count on over all lists.
std::wstring NewEntry(const std::wstring& list)
{
    const DWORD next = ReadDword(kFirewallRoot, L"NextId", 1);
    const DWORD following = next + 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kFirewallRoot, L"NextId", REG_DWORD, &following, sizeof(following));
    return list + L"\\" + std::to_wstring(next);
}

bool Exists(const std::wstring& entry)
{
    Quillcast::System::Types::CRegistryKey key;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

void DeleteEntry(const std::wstring& entry)
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str());
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, FirewallKey(entry).c_str());
}

// Item: the item of `entry` for *ppItem; not found when the entry is missing.
template <typename TItem, typename TInterface>
HRESULT ItemOf(const wchar_t* method, const std::wstring& entry, TInterface** ppItem)
{
    *ppItem = nullptr;
    return Journaled(method, [&] {
        const HRESULT hResult = entry.empty() || !Exists(entry) ? kNotFound : Make<TItem>(ppItem);
        if (SUCCEEDED(hResult))
        {
            static_cast<TItem*>(*ppItem)->Bind(entry, false);
        }
        return hResult;
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
        pItem->Bind(entryOf(*pItem), true);
        return S_OK;
    });
}

// Remove: the entry goes; not found when it is missing.
HRESULT RemoveFrom(const wchar_t* method, const std::wstring& entry)
{
    return Journaled(method, [&] {
        if (entry.empty() || !Exists(entry)) // (an empty entry would name the root)
        {
            return kNotFound;
        }
        DeleteEntry(entry);
        return S_OK;
    });
}

class CRule : public CObject<INetFwRule2>, public CItem
{
public:
    CRule() : CItem(L"Rule", kRuleProperties) {}

    QC_SET(Name, BSTR)
    QC_SET(Description, BSTR)
    QC_SET(ApplicationName, BSTR)
    QC_SET(ServiceName, BSTR)
    QC_SET(Protocol, LONG)
    QC_SET(LocalPorts, BSTR)
    QC_SET(RemotePorts, BSTR)
    QC_SET(LocalAddresses, BSTR)
    QC_SET(RemoteAddresses, BSTR)
    QC_UNUSED_PROPERTY(IcmpTypesAndCodes, BSTR)
    QC_SET(Direction, NET_FW_RULE_DIRECTION)
    QC_UNUSED_PROPERTY(Interfaces, VARIANT)
    QC_UNUSED_PROPERTY(InterfaceTypes, BSTR)
    QC_SET(Enabled, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(Grouping, BSTR)
    QC_SET(Profiles, LONG)
    QC_SET(EdgeTraversal, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(Action, NET_FW_ACTION)
    QC_SET(EdgeTraversalOptions, LONG)

protected:
    // Under the NoRule2 switch the rule is of the older kind, without INetFwRule2.
    void* Find(REFIID riid) override
    {
        const bool bHidden = riid == __uuidof(INetFwRule2) && ReadDword(kFirewallRoot, L"NoRule2", 0) != 0;
        return bHidden ? nullptr : InterfaceOf<INetFwRule2, INetFwRule>(this, riid);
    }
};

class COpenPort : public CObject<INetFwOpenPort>, public CItem
{
public:
    COpenPort() : CItem(L"OpenPort", kOpenPortProperties) {}

    QC_SET(Name, BSTR)
    QC_UNUSED_PROPERTY(IpVersion, NET_FW_IP_VERSION)
    QC_SET(Protocol, NET_FW_IP_PROTOCOL)
    QC_SET(Port, LONG)
    QC_UNUSED_PROPERTY(Scope, NET_FW_SCOPE)
    QC_SET(RemoteAddresses, BSTR)
    STDMETHODIMP get_Enabled(VARIANT_BOOL* pEnabled) override { return GetEnabled(pEnabled); }
    STDMETHODIMP put_Enabled(VARIANT_BOOL value) override { return Put(L"Enabled", value); }
    QC_UNUSED(get_BuiltIn, VARIANT_BOOL*)
};

class CAuthorizedApp : public CObject<INetFwAuthorizedApplication>, public CItem
{
public:
    CAuthorizedApp() : CItem(L"AuthorizedApp", kAuthorizedAppProperties) {}

    QC_SET(Name, BSTR)
    QC_SET(ProcessImageFileName, BSTR)
    QC_UNUSED_PROPERTY(IpVersion, NET_FW_IP_VERSION)
    QC_UNUSED_PROPERTY(Scope, NET_FW_SCOPE)
    QC_SET(RemoteAddresses, BSTR)
    STDMETHODIMP get_Enabled(VARIANT_BOOL* pEnabled) override { return GetEnabled(pEnabled); }
    STDMETHODIMP put_Enabled(VARIANT_BOOL value) override { return Put(L"Enabled", value); }
};

// Rules are found by name; a new one gets a new entry, and a removal takes
// every rule of the name (none is no failure).
class CRules : public CObject<INetFwRules>
{
public:
    QC_UNUSED_COUNT_AND_ENUM
    STDMETHODIMP Item(BSTR name, INetFwRule** ppRule) override
    {
        return ItemOf<CRule>(L"Rules.Item", FindEntry(L"Rules", L"Name", name), ppRule);
    }
    STDMETHODIMP Add(INetFwRule* pRule) override
    {
        return AddTo<CRule>(L"Rules.Add", pRule, [](const CItem&) { return NewEntry(L"Rules"); });
    }
    STDMETHODIMP Remove(BSTR name) override
    {
        return Journaled(L"Rules.Remove", [&] {
            for (std::wstring entry; !(entry = FindEntry(L"Rules", L"Name", name)).empty();)
            {
                DeleteEntry(entry);
            }
            return S_OK;
        });
    }
};

class CPolicy2 : public CObject<INetFwPolicy2>
{
public:
    STDMETHODIMP get_CurrentProfileTypes(LONG* pProfiles) override
    {
        return Journaled(L"Policy2.CurrentProfileTypes", [&] {
            *pProfiles = static_cast<LONG>(ReadDword(kFirewallRoot, L"CurrentProfileTypes", NET_FW_PROFILE2_PRIVATE));
            return S_OK;
        });
    }
    STDMETHODIMP get_Rules(INetFwRules** ppRules) override
    {
        return Journaled(L"Policy2.Rules", [&] { return Make<CRules>(ppRules); });
    }
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
};

// ---- the legacy lists of the current profile -------------------------------

// Open ports are keyed by port and protocol: an open port of the same pair is replaced.
std::wstring PortEntry(LONG port, LONG protocol)
{
    return L"OpenPorts\\" + std::to_wstring(port) + L"-" + std::to_wstring(protocol);
}

class COpenPorts : public CObject<INetFwOpenPorts>
{
public:
    QC_UNUSED_COUNT_AND_ENUM
    STDMETHODIMP Item(LONG port, NET_FW_IP_PROTOCOL protocol, INetFwOpenPort** ppPort) override
    {
        return ItemOf<COpenPort>(L"OpenPorts.Item", PortEntry(port, protocol), ppPort);
    }
    STDMETHODIMP Add(INetFwOpenPort* pPort) override
    {
        return AddTo<COpenPort>(L"OpenPorts.Add", pPort, [](const CItem& item) {
            DeleteEntry(PortEntry(item.Number(L"Port"), item.Number(L"Protocol")));
            return PortEntry(item.Number(L"Port"), item.Number(L"Protocol"));
        });
    }
    STDMETHODIMP Remove(LONG port, NET_FW_IP_PROTOCOL protocol) override
    {
        return RemoveFrom(L"OpenPorts.Remove", PortEntry(port, protocol));
    }
};

// Authorized programs are keyed by image path: a program already listed is replaced.
std::wstring AppEntry(const wchar_t* path)
{
    return FindEntry(L"AuthorizedApplications", L"ProcessImageFileName", path);
}

class CAuthorizedApps : public CObject<INetFwAuthorizedApplications>
{
public:
    QC_UNUSED_COUNT_AND_ENUM
    STDMETHODIMP Item(BSTR path, INetFwAuthorizedApplication** ppApp) override
    {
        return ItemOf<CAuthorizedApp>(L"AuthorizedApps.Item", AppEntry(path), ppApp);
    }
    STDMETHODIMP Add(INetFwAuthorizedApplication* pApp) override
    {
        return AddTo<CAuthorizedApp>(L"AuthorizedApps.Add", pApp, [](const CItem& item) {
            const std::wstring entry = AppEntry(item.Text(L"ProcessImageFileName").c_str());
            return entry.empty() ? NewEntry(L"AuthorizedApplications") : entry;
        });
    }
    STDMETHODIMP Remove(BSTR path) override { return RemoveFrom(L"AuthorizedApps.Remove", AppEntry(path)); }
};

class CProfile : public CObject<INetFwProfile>
{
public:
    // The value is written before the call may fail, as a failing getter may leave it.
    STDMETHODIMP get_ExceptionsNotAllowed(VARIANT_BOOL* pNotAllowed) override
    {
        *pNotAllowed = ReadDword(kFirewallRoot, L"ExceptionsNotAllowed", 0) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        return Call(L"Profile.ExceptionsNotAllowed");
    }
    STDMETHODIMP get_GloballyOpenPorts(INetFwOpenPorts** ppPorts) override
    {
        return Journaled(L"Profile.GloballyOpenPorts", [&] { return Make<COpenPorts>(ppPorts); });
    }
    STDMETHODIMP get_AuthorizedApplications(INetFwAuthorizedApplications** ppApps) override
    {
        return Journaled(L"Profile.AuthorizedApplications", [&] { return Make<CAuthorizedApps>(ppApps); });
    }
    QC_UNUSED(get_Type, NET_FW_PROFILE_TYPE*)
    QC_UNUSED_PROPERTY(FirewallEnabled, VARIANT_BOOL)
    QC_UNUSED(put_ExceptionsNotAllowed, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(NotificationsDisabled, VARIANT_BOOL)
    QC_UNUSED_PROPERTY(UnicastResponsesToMulticastBroadcastDisabled, VARIANT_BOOL)
    QC_UNUSED(get_RemoteAdminSettings, INetFwRemoteAdminSettings**)
    QC_UNUSED(get_IcmpSettings, INetFwIcmpSettings**)
    QC_UNUSED(get_Services, INetFwServices**)
};

class CPolicy : public CObject<INetFwPolicy>
{
public:
    STDMETHODIMP get_CurrentProfile(INetFwProfile** ppProfile) override
    {
        return Journaled(L"Policy.CurrentProfile", [&] { return Make<CProfile>(ppProfile); });
    }
    QC_UNUSED(GetProfileByType, NET_FW_PROFILE_TYPE, INetFwProfile**)
};

class CMgr : public CObject<INetFwMgr>
{
public:
    STDMETHODIMP get_LocalPolicy(INetFwPolicy** ppPolicy) override
    {
        return Journaled(L"Mgr.LocalPolicy", [&] { return Make<CPolicy>(ppPolicy); });
    }
    QC_UNUSED(get_CurrentProfileType, NET_FW_PROFILE_TYPE*)
    QC_UNUSED(RestoreDefaults, void)
    QC_UNUSED(IsPortAllowed, BSTR, NET_FW_IP_VERSION, LONG, BSTR, NET_FW_IP_PROTOCOL, VARIANT*, VARIANT*)
    QC_UNUSED(IsIcmpTypeAllowed, NET_FW_IP_VERSION, BSTR, BYTE, VARIANT*, VARIANT*)
};

// ---- class objects and registration ----------------------------------------

// The class object of TObject: every creation is journaled as "Create.<class>",
// and NetFwPolicy2 can play "not registered" (the NoPolicy2 switch).
template <typename TObject>
class CFactory : public CClassFactory<TObject>
{
public:
    explicit CFactory(const wchar_t* name) : m_name(name) {}
    STDMETHODIMP CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) override
    {
        if (wcscmp(m_name, L"NetFwPolicy2") == 0 && ReadDword(kFirewallRoot, L"NoPolicy2", 0) != 0)
        {
            return REGDB_E_CLASSNOTREG;
        }
        return Journaled(std::wstring(L"Create.") + m_name,
                         [&] { return CClassFactory<TObject>::CreateInstance(pOuter, riid, ppv); });
    }

private:
    const wchar_t* m_name;
};

CFactory<CPolicy2> g_policy2(L"NetFwPolicy2");
CFactory<CRule> g_rule(L"NetFwRule");
CFactory<CMgr> g_mgr(L"NetFwMgr");
CFactory<COpenPort> g_openPort(L"NetFwOpenPort");
CFactory<CAuthorizedApp> g_authorizedApp(L"NetFwAuthorizedApplication");
const struct
{
    CLSID clsid;
    IClassFactory* pFactory;
} kClasses[] = {{__uuidof(NetFwPolicy2), &g_policy2},
                {__uuidof(NetFwRule), &g_rule},
                {__uuidof(NetFwMgr), &g_mgr},
                {__uuidof(NetFwOpenPort), &g_openPort},
                {__uuidof(NetFwAuthorizedApplication), &g_authorizedApp}};

// Wine's registration while this one replaces it (not part of the state).
constexpr const wchar_t* kSaved = L"Software\\QuillcastTest\\FirewallSavedRegistration";

} // namespace
} // namespace QcTest

extern "C" IMAGE_DOS_HEADER __ImageBase; // this module

extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    for (const auto& entry : QcTest::kClasses)
    {
        if (clsid == entry.clsid)
        {
            return entry.pFactory->QueryInterface(riid, ppv);
        }
    }
    *ppv = nullptr;
    return CLASS_E_CLASSNOTAVAILABLE;
}

// The objects keep no count of the module: it stays loaded while the process runs.
extern "C" HRESULT WINAPI DllCanUnloadNow()
{
    return S_FALSE;
}

// The five classes served here; the registrations they replace are kept (once)
// for DllUnregisterServer to put back.
extern "C" HRESULT WINAPI DllRegisterServer()
{
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), self, MAX_PATH);
    for (const auto& entry : QcTest::kClasses)
    {
        if (!QcTest::ReplaceServer(entry.clsid, self, QcTest::kSaved))
        {
            return E_ACCESSDENIED;
        }
    }
    return S_OK;
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
