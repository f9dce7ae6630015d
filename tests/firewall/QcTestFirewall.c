/* A test double of the Windows Firewall objects that Wine stubs: an in-process
 * COM server for NetFwPolicy2, NetFwRule, NetFwMgr, NetFwOpenPort and
 * NetFwAuthorizedApplication. It keeps its rules and lists in the registry
 * (HKLM\Software\QuillcastTest\Firewall) so that any process of the prefix
 * sees one firewall and the tests can read what an action left behind:
 *   Rules\<n>               one key per rule, its properties as values
 *   OpenPorts\<port>-<protocol>, AuthorizedApplications\<n>
 *   Journal                 REG_MULTI_SZ, every call as "Object.Method"
 * Switches, values of the same key: NoPolicy2 (NetFwPolicy2 not registered),
 * NoRule2 (rules without INetFwRule2), CurrentProfileTypes (default 2),
 * ExceptionsNotAllowed; and under Fail\ a DWORD named "Object.Method" makes
 * that call answer the DWORD as its HRESULT.
 * It checks what Windows documents: names and paths required, no "|" in a
 * rule name, ports only with TCP (6) or UDP (17), profile masks of known bits
 * (or all), address lists of addresses, subnets, ranges and keywords (not a
 * service name), legacy ports 1 to 65535, missing items 0x80070002. An empty
 * or "*" port or address list means "any" and is accepted for any protocol.
 * Written in C: the vtables are filled from the C declarations of netfw.h, so
 * the calls no case needs answer E_NOTIMPL without a line each. */
#define COBJMACROS
#define CINTERFACE
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <ole2.h>
#include <initguid.h> /* defines the netfw.h interface ids here */
#include <netfw.h>

#include <stdio.h>
#include <wchar.h>

#define ROOT L"Software\\QuillcastTest\\Firewall"
/* Wine's registration while this one replaces it (not part of the state). */
#define SAVED L"Software\\QuillcastTest\\FirewallSavedRegistration"
#define NOT_FOUND HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)

static HMODULE g_hModule;
static LONG g_lLocks;

/* ------------------------------------------------------------------ state */

static HKEY OpenState(const WCHAR* sub)
{
    WCHAR path[128];
    HKEY key = NULL;
    _snwprintf(path, 127, L"%ls%ls%ls", ROOT, sub[0] ? L"\\" : L"", sub);
    path[127] = 0;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, NULL, 0, KEY_ALL_ACCESS, NULL, &key, NULL) != ERROR_SUCCESS)
        return NULL;
    return key;
}

static DWORD Switch(const WCHAR* name, DWORD fallback)
{
    DWORD value = fallback, size = sizeof(value);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, ROOT, name, RRF_RT_REG_DWORD, NULL, &value, &size) != ERROR_SUCCESS)
        return fallback;
    return value;
}

/* Journals the call and answers the HRESULT its Fail switch asks for. */
static HRESULT Call(const WCHAR* method)
{
    HKEY key = OpenState(L"");
    DWORD size = 0, code = 0, codeSize = sizeof(code);
    WCHAR* journal;
    size_t used, length = wcslen(method);
    if (!key)
        return E_FAIL;
    if (RegQueryValueExW(key, L"Journal", NULL, NULL, NULL, &size) != ERROR_SUCCESS)
        size = 0;
    journal = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size + (length + 2) * sizeof(WCHAR));
    if (journal)
    {
        if (size)
            RegQueryValueExW(key, L"Journal", NULL, NULL, (BYTE*)journal, &size);
        used = size / sizeof(WCHAR);
        if (used)
            used--; /* over the list's final terminator */
        memcpy(journal + used, method, length * sizeof(WCHAR));
        journal[used + length] = 0;
        journal[used + length + 1] = 0;
        RegSetValueExW(key, L"Journal", 0, REG_MULTI_SZ, (BYTE*)journal, (DWORD)((used + length + 2) * sizeof(WCHAR)));
        HeapFree(GetProcessHeap(), 0, journal);
    }
    RegCloseKey(key);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, ROOT L"\\Fail", method, RRF_RT_REG_DWORD, NULL, &code, &codeSize) ==
        ERROR_SUCCESS)
        return (HRESULT)code;
    return S_OK;
}

#define CALL(method)                                                                                                   \
    do                                                                                                                 \
    {                                                                                                                  \
        HRESULT hrCall = Call(method);                                                                                 \
        if (FAILED(hrCall))                                                                                            \
            return hrCall;                                                                                             \
    } while (0)

static BOOL SameText(const WCHAR* a, const WCHAR* b)
{
    return CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}

/* ------------------------------------------------------------------ items */

/* A rule, an open port or an authorized program: its properties in memory
 * and, once it is in a list, in its registry key (`key`, under ROOT). */
enum Kind
{
    KIND_RULE,
    KIND_PORT,
    KIND_APP
};
enum
{
    MAX_PROPS = 16
};
typedef struct
{
    const WCHAR* name;
    BOOL bString;
    LONG lDefault;
} PropDef;

/* Rule properties */
enum
{
    R_NAME,
    R_DESCRIPTION,
    R_APPLICATION,
    R_SERVICE,
    R_PROTOCOL,
    R_LOCALPORTS,
    R_REMOTEPORTS,
    R_LOCALADDRESSES,
    R_REMOTEADDRESSES,
    R_DIRECTION,
    R_ENABLED,
    R_PROFILES,
    R_EDGE,
    R_EDGEOPTIONS,
    R_ACTION,
    R_COUNT
};
static const PropDef kRuleProps[R_COUNT] = {{L"Name", TRUE, 0},
                                            {L"Description", TRUE, 0},
                                            {L"ApplicationName", TRUE, 0},
                                            {L"ServiceName", TRUE, 0},
                                            {L"Protocol", FALSE, 256},
                                            {L"LocalPorts", TRUE, 0},
                                            {L"RemotePorts", TRUE, 0},
                                            {L"LocalAddresses", TRUE, 0},
                                            {L"RemoteAddresses", TRUE, 0},
                                            {L"Direction", FALSE, 1},
                                            {L"Enabled", FALSE, 0},
                                            {L"Profiles", FALSE, 0x7FFFFFFF},
                                            {L"EdgeTraversal", FALSE, 0},
                                            {L"EdgeTraversalOptions", FALSE, 0},
                                            {L"Action", FALSE, 1}};
/* Open-port properties */
enum
{
    P_NAME,
    P_PORT,
    P_PROTOCOL,
    P_REMOTEADDRESSES,
    P_ENABLED,
    P_SCOPE,
    P_IPVERSION,
    P_COUNT
};
static const PropDef kPortProps[P_COUNT] = {
    {L"Name", TRUE, 0},     {L"Port", FALSE, 0},  {L"Protocol", FALSE, 6}, {L"RemoteAddresses", TRUE, 0},
    {L"Enabled", FALSE, 1}, {L"Scope", FALSE, 0}, {L"IpVersion", FALSE, 2}};
/* Authorized-program properties */
enum
{
    A_NAME,
    A_IMAGE,
    A_REMOTEADDRESSES,
    A_ENABLED,
    A_SCOPE,
    A_IPVERSION,
    A_COUNT
};
static const PropDef kAppProps[A_COUNT] = {{L"Name", TRUE, 0},
                                           {L"ProcessImageFileName", TRUE, 0},
                                           {L"RemoteAddresses", TRUE, 0},
                                           {L"Enabled", FALSE, 1},
                                           {L"Scope", FALSE, 0},
                                           {L"IpVersion", FALSE, 2}};

typedef struct
{
    const void* lpVtbl;
    LONG refs;
    enum Kind kind;
    const PropDef* defs;
    int count;
    WCHAR* text[MAX_PROPS];
    LONG number[MAX_PROPS];
    WCHAR key[64];
} Item;

static const void* ItemVtbl(enum Kind kind);

static Item* NewItem(enum Kind kind)
{
    Item* item = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(Item));
    int i;
    if (!item)
        return NULL;
    item->lpVtbl = ItemVtbl(kind);
    item->refs = 1;
    item->kind = kind;
    item->defs = kind == KIND_RULE ? kRuleProps : kind == KIND_PORT ? kPortProps : kAppProps;
    item->count = kind == KIND_RULE ? R_COUNT : kind == KIND_PORT ? P_COUNT : A_COUNT;
    for (i = 0; i < item->count; i++)
        item->number[i] = item->defs[i].lDefault;
    InterlockedIncrement(&g_lLocks);
    return item;
}

static void FreeItem(Item* item)
{
    int i;
    for (i = 0; i < item->count; i++)
        HeapFree(GetProcessHeap(), 0, item->text[i]);
    HeapFree(GetProcessHeap(), 0, item);
    InterlockedDecrement(&g_lLocks);
}

static WCHAR* CopyText(const WCHAR* text)
{
    size_t size = (wcslen(text ? text : L"") + 1) * sizeof(WCHAR);
    WCHAR* copy = HeapAlloc(GetProcessHeap(), 0, size);
    if (copy)
        memcpy(copy, text ? text : L"", size);
    return copy;
}

static void StoreProp(const Item* item, int index)
{
    HKEY key;
    if (!item->key[0] || !(key = OpenState(item->key)))
        return;
    if (!item->defs[index].bString)
        RegSetValueExW(key, item->defs[index].name, 0, REG_DWORD, (const BYTE*)&item->number[index], sizeof(LONG));
    else if (item->text[index])
        RegSetValueExW(key, item->defs[index].name, 0, REG_SZ, (const BYTE*)item->text[index],
                       (DWORD)((wcslen(item->text[index]) + 1) * sizeof(WCHAR)));
    RegCloseKey(key);
}

static HRESULT PutText(Item* item, int index, const WCHAR* value)
{
    WCHAR* copy = CopyText(value);
    if (!copy)
        return E_OUTOFMEMORY;
    HeapFree(GetProcessHeap(), 0, item->text[index]);
    item->text[index] = copy;
    StoreProp(item, index);
    return S_OK;
}

static HRESULT PutNumber(Item* item, int index, LONG value)
{
    item->number[index] = value;
    StoreProp(item, index);
    return S_OK;
}

/* Writes the whole item into key `sub` (under ROOT) and binds it there. */
static void Attach(Item* item, const WCHAR* sub)
{
    int i;
    wcsncpy(item->key, sub, 63);
    for (i = 0; i < item->count; i++)
        StoreProp(item, i);
}

static Item* Load(enum Kind kind, const WCHAR* sub)
{
    Item* item = NewItem(kind);
    HKEY key = OpenState(sub);
    int i;
    if (!item || !key)
    {
        if (key)
            RegCloseKey(key);
        return item;
    }
    for (i = 0; i < item->count; i++)
    {
        DWORD size = 0;
        if (!item->defs[i].bString)
        {
            size = sizeof(LONG);
            RegQueryValueExW(key, item->defs[i].name, NULL, NULL, (BYTE*)&item->number[i], &size);
        }
        else if (RegQueryValueExW(key, item->defs[i].name, NULL, NULL, NULL, &size) == ERROR_SUCCESS &&
                 (item->text[i] = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size + sizeof(WCHAR))))
            RegQueryValueExW(key, item->defs[i].name, NULL, NULL, (BYTE*)item->text[i], &size);
    }
    wcsncpy(item->key, sub, 63);
    RegCloseKey(key);
    return item;
}

/* The key (under `list`) of the first entry whose `value` equals `text`
 * ignoring case, into `sub`; FALSE when there is none. */
static BOOL FindEntry(const WCHAR* list, const WCHAR* value, const WCHAR* text, WCHAR* sub)
{
    HKEY key = OpenState(list);
    WCHAR name[32];
    DWORD index;
    BOOL found = FALSE;
    if (!key)
        return FALSE;
    for (index = 0; !found; index++)
    {
        DWORD length = 32, size = 0;
        WCHAR* stored;
        if (RegEnumKeyExW(key, index, name, &length, NULL, NULL, NULL, NULL) != ERROR_SUCCESS)
            break;
        if (RegGetValueW(key, name, value, RRF_RT_REG_SZ, NULL, NULL, &size) != ERROR_SUCCESS ||
            !(stored = HeapAlloc(GetProcessHeap(), 0, size)))
            continue;
        if (RegGetValueW(key, name, value, RRF_RT_REG_SZ, NULL, stored, &size) == ERROR_SUCCESS &&
            SameText(stored, text))
        {
            _snwprintf(sub, 63, L"%ls\\%ls", list, name);
            found = TRUE;
        }
        HeapFree(GetProcessHeap(), 0, stored);
    }
    RegCloseKey(key);
    return found;
}

/* A new numbered key under `list` into `sub`. */
static void NewEntry(const WCHAR* list, WCHAR* sub)
{
    DWORD next = Switch(L"NextId", 1);
    HKEY key = OpenState(L"");
    DWORD following = next + 1;
    if (key)
    {
        RegSetValueExW(key, L"NextId", 0, REG_DWORD, (const BYTE*)&following, sizeof(following));
        RegCloseKey(key);
    }
    _snwprintf(sub, 63, L"%ls\\%lu", list, (unsigned long)next);
}

static void DeleteEntry(const WCHAR* sub)
{
    WCHAR path[128];
    _snwprintf(path, 127, L"%ls\\%ls", ROOT, sub);
    path[127] = 0;
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, path);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
}

/* ------------------------------------------------------------------ checks */

static BOOL IsAny(const WCHAR* text)
{
    return !text || !text[0] || wcscmp(text, L"*") == 0;
}

/* Comma-separated tokens, none empty; `check` judges each. */
static BOOL EachToken(const WCHAR* text, BOOL (*check)(const WCHAR*, size_t))
{
    while (1)
    {
        const WCHAR* comma = wcschr(text, L',');
        size_t length = comma ? (size_t)(comma - text) : wcslen(text);
        if (length == 0 || length > 80 || !check(text, length))
            return FALSE;
        if (!comma)
            return TRUE;
        text = comma + 1;
    }
}

static BOOL IsNumber(const WCHAR* text, size_t length, long low, long high)
{
    size_t i;
    long value = 0;
    if (length == 0 || length > 5)
        return FALSE;
    for (i = 0; i < length; i++)
    {
        if (text[i] < L'0' || text[i] > L'9')
            return FALSE;
        value = value * 10 + (text[i] - L'0');
    }
    return value >= low && value <= high;
}

static BOOL IsPortToken(const WCHAR* text, size_t length)
{
    static const WCHAR* const keywords[] = {L"RPC", L"RPC-EPMap", L"IPHTTPS", L"Teredo", L"Ply2Disc", L"mDNS"};
    const WCHAR* dash = wmemchr(text, L'-', length);
    WCHAR token[81];
    size_t i;
    wmemcpy(token, text, length);
    token[length] = 0;
    for (i = 0; i < sizeof(keywords) / sizeof(keywords[0]); i++)
        if (SameText(token, keywords[i]))
            return TRUE;
    if (dash)
        return IsNumber(text, (size_t)(dash - text), 0, 65535) &&
               IsNumber(dash + 1, length - (size_t)(dash - text) - 1, 0, 65535) && _wtoi(text) <= _wtoi(dash + 1);
    return IsNumber(text, length, 0, 65535);
}

static BOOL IsAddress(const WCHAR* text, size_t length)
{
    WCHAR address[81];
    BYTE buffer[16];
    wmemcpy(address, text, length);
    address[length] = 0;
    return InetPtonW(wmemchr(text, L':', length) ? AF_INET6 : AF_INET, address, buffer) == 1;
}

static BOOL IsAddressToken(const WCHAR* text, size_t length)
{
    static const WCHAR* const keywords[] = {L"LocalSubnet", L"DNS", L"DHCP", L"WINS", L"DefaultGateway"};
    const WCHAR* slash = wmemchr(text, L'/', length);
    const WCHAR* dash = wmemchr(text, L'-', length);
    WCHAR token[81];
    size_t i;
    wmemcpy(token, text, length);
    token[length] = 0;
    for (i = 0; i < sizeof(keywords) / sizeof(keywords[0]); i++)
        if (SameText(token, keywords[i]))
            return TRUE;
    if (slash)
        return IsAddress(text, (size_t)(slash - text)) &&
               (IsNumber(slash + 1, length - (size_t)(slash - text) - 1, 0, 128) ||
                IsAddress(slash + 1, length - (size_t)(slash - text) - 1));
    if (dash)
        return IsAddress(text, (size_t)(dash - text)) && IsAddress(dash + 1, length - (size_t)(dash - text) - 1);
    return IsAddress(text, length);
}

static HRESULT PutPorts(Item* item, int index, BSTR ports)
{
    LONG protocol = item->number[R_PROTOCOL];
    if (IsAny(ports))
        return PutText(item, index, ports);
    if (protocol != 6 && protocol != 17)
        return E_INVALIDARG; /* ports need TCP or UDP */
    return EachToken(ports, IsPortToken) ? PutText(item, index, ports) : E_INVALIDARG;
}

static HRESULT PutAddresses(Item* item, int index, BSTR addresses)
{
    if (IsAny(addresses))
        return PutText(item, index, addresses);
    return EachToken(addresses, IsAddressToken) ? PutText(item, index, addresses) : E_INVALIDARG;
}

/* ------------------------------------------------------------------ IUnknown, IDispatch */

static ULONG STDMETHODCALLTYPE ItemAddRef(IUnknown* This)
{
    return (ULONG)InterlockedIncrement(&((Item*)This)->refs);
}

static ULONG STDMETHODCALLTYPE ItemRelease(IUnknown* This)
{
    Item* item = (Item*)This;
    LONG refs = InterlockedDecrement(&item->refs);
    if (refs == 0)
        FreeItem(item);
    return (ULONG)refs;
}

static HRESULT STDMETHODCALLTYPE ItemQueryInterface(IUnknown* This, REFIID riid, void** ppv)
{
    static const IID* const kRule[] = {&IID_INetFwRule, &IID_INetFwRule2};
    Item* item = (Item*)This;
    BOOL ok = IsEqualIID(riid, &IID_IUnknown) || IsEqualIID(riid, &IID_IDispatch);
    if (item->kind == KIND_RULE)
        ok = ok || IsEqualIID(riid, kRule[0]) || (IsEqualIID(riid, kRule[1]) && !Switch(L"NoRule2", 0));
    else if (item->kind == KIND_PORT)
        ok = ok || IsEqualIID(riid, &IID_INetFwOpenPort);
    else
        ok = ok || IsEqualIID(riid, &IID_INetFwAuthorizedApplication);
    if (!ppv)
        return E_POINTER;
    *ppv = ok ? This : NULL;
    if (!ok)
        return E_NOINTERFACE;
    ItemAddRef(This);
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE GetTypeInfoCount(IUnknown* This, UINT* count)
{
    (void)This;
    *count = 0;
    return S_OK;
}

/* Every slot no case needs: arguments are ignored, which the x64 calling
 * convention allows for any signature. */
static HRESULT STDMETHODCALLTYPE NotImplemented(void)
{
    return E_NOTIMPL;
}

static void FillVtbl(void* vtbl, size_t size)
{
    void** slots = vtbl;
    size_t i;
    for (i = 0; i < size / sizeof(void*); i++)
        slots[i] = (void*)NotImplemented;
    slots[0] = (void*)ItemQueryInterface;
    slots[1] = (void*)ItemAddRef;
    slots[2] = (void*)ItemRelease;
    slots[3] = (void*)GetTypeInfoCount;
}

/* ------------------------------------------------------------------ NetFwRule */

/* One setter or getter per property: it journals the call as "Object.Method"
 * (and answers what the call's Fail switch asks for), then checks and stores
 * or reads the value `v` of the item `This`. */
#define ACCESSOR(function, Interface, Type, method, body)                                                              \
    static HRESULT STDMETHODCALLTYPE function(Interface* This, Type v)                                                 \
    {                                                                                                                  \
        Item* item = (Item*)This;                                                                                      \
        CALL(method);                                                                                                  \
        body;                                                                                                          \
    }
#define BOOL_OF(v) ((v) ? 1 : 0)
#define ENABLED_OF(item, index) ((item)->number[index] ? VARIANT_TRUE : VARIANT_FALSE)

ACCESSOR(Rule_put_Name, INetFwRule2, BSTR, L"Rule.Name",
         return !v || !v[0] || wcschr(v, L'|') ? E_INVALIDARG : PutText(item, R_NAME, v))
ACCESSOR(Rule_put_Description, INetFwRule2, BSTR, L"Rule.Description", return PutText(item, R_DESCRIPTION, v))
ACCESSOR(Rule_put_ApplicationName, INetFwRule2, BSTR, L"Rule.ApplicationName", return PutText(item, R_APPLICATION, v))
ACCESSOR(Rule_put_ServiceName, INetFwRule2, BSTR, L"Rule.ServiceName", return PutText(item, R_SERVICE, v))
ACCESSOR(Rule_put_Protocol, INetFwRule2, LONG, L"Rule.Protocol",
         return v < 0 || v > 256 ? E_INVALIDARG : PutNumber(item, R_PROTOCOL, v))
ACCESSOR(Rule_put_LocalPorts, INetFwRule2, BSTR, L"Rule.LocalPorts", return PutPorts(item, R_LOCALPORTS, v))
ACCESSOR(Rule_put_RemotePorts, INetFwRule2, BSTR, L"Rule.RemotePorts", return PutPorts(item, R_REMOTEPORTS, v))
ACCESSOR(Rule_put_LocalAddresses, INetFwRule2, BSTR, L"Rule.LocalAddresses",
         return PutAddresses(item, R_LOCALADDRESSES, v))
ACCESSOR(Rule_put_RemoteAddresses, INetFwRule2, BSTR, L"Rule.RemoteAddresses",
         return PutAddresses(item, R_REMOTEADDRESSES, v))
ACCESSOR(Rule_put_Direction, INetFwRule2, NET_FW_RULE_DIRECTION, L"Rule.Direction",
         return v != NET_FW_RULE_DIR_IN && v != NET_FW_RULE_DIR_OUT ? E_INVALIDARG : PutNumber(item, R_DIRECTION, v))
ACCESSOR(Rule_put_Enabled, INetFwRule2, VARIANT_BOOL, L"Rule.Enabled", return PutNumber(item, R_ENABLED, BOOL_OF(v)))
ACCESSOR(Rule_put_Profiles, INetFwRule2, LONG, L"Rule.Profiles",
         return v != NET_FW_PROFILE2_ALL && (v == 0 || (v & ~7) != 0) ? E_INVALIDARG : PutNumber(item, R_PROFILES, v))
ACCESSOR(Rule_put_EdgeTraversal, INetFwRule2, VARIANT_BOOL, L"Rule.EdgeTraversal",
         return PutNumber(item, R_EDGE, BOOL_OF(v)))
ACCESSOR(Rule_put_EdgeTraversalOptions, INetFwRule2, LONG, L"Rule.EdgeTraversalOptions",
         return v < 0 || v > 3 ? E_INVALIDARG : PutNumber(item, R_EDGEOPTIONS, v))

ACCESSOR(Port_put_Name, INetFwOpenPort, BSTR, L"OpenPort.Name",
         return !v || !v[0] ? E_INVALIDARG : PutText(item, P_NAME, v))
ACCESSOR(Port_put_Protocol, INetFwOpenPort, NET_FW_IP_PROTOCOL, L"OpenPort.Protocol",
         return v != 6 && v != 17 ? E_INVALIDARG : PutNumber(item, P_PROTOCOL, v))
ACCESSOR(Port_put_Port, INetFwOpenPort, LONG, L"OpenPort.Port",
         return v < 1 || v > 65535 ? E_INVALIDARG : PutNumber(item, P_PORT, v))
ACCESSOR(Port_put_RemoteAddresses, INetFwOpenPort, BSTR, L"OpenPort.RemoteAddresses",
         return PutAddresses(item, P_REMOTEADDRESSES, v))
ACCESSOR(Port_put_Enabled, INetFwOpenPort, VARIANT_BOOL, L"OpenPort.Enabled",
         return PutNumber(item, P_ENABLED, BOOL_OF(v)))
ACCESSOR(Port_get_Enabled, INetFwOpenPort, VARIANT_BOOL*, L"OpenPort.GetEnabled", *v = ENABLED_OF(item, P_ENABLED);
         return S_OK)
ACCESSOR(App_put_Name, INetFwAuthorizedApplication, BSTR, L"AuthorizedApp.Name",
         return !v || !v[0] ? E_INVALIDARG : PutText(item, A_NAME, v))
ACCESSOR(App_put_Image, INetFwAuthorizedApplication, BSTR, L"AuthorizedApp.ProcessImageFileName",
         return !v || !v[0] ? E_INVALIDARG : PutText(item, A_IMAGE, v))
ACCESSOR(App_put_RemoteAddresses, INetFwAuthorizedApplication, BSTR, L"AuthorizedApp.RemoteAddresses",
         return PutAddresses(item, A_REMOTEADDRESSES, v))
ACCESSOR(App_put_Enabled, INetFwAuthorizedApplication, VARIANT_BOOL, L"AuthorizedApp.Enabled",
         return PutNumber(item, A_ENABLED, BOOL_OF(v)))
ACCESSOR(App_get_Enabled, INetFwAuthorizedApplication, VARIANT_BOOL*, L"AuthorizedApp.GetEnabled",
         *v = ENABLED_OF(item, A_ENABLED);
         return S_OK)

static INetFwRule2Vtbl g_RuleVtbl;
static INetFwOpenPortVtbl g_PortVtbl;
static INetFwAuthorizedApplicationVtbl g_AppVtbl;

static const void* ItemVtbl(enum Kind kind)
{
    return kind == KIND_RULE   ? (const void*)&g_RuleVtbl
           : kind == KIND_PORT ? (const void*)&g_PortVtbl
                               : (const void*)&g_AppVtbl;
}

/* ------------------------------------------------------------------ lists and policies */

/* The objects without state of their own: they only route to the registry. */
enum ListKind
{
    LIST_POLICY2,
    LIST_RULES,
    LIST_MGR,
    LIST_POLICY,
    LIST_PROFILE,
    LIST_PORTS,
    LIST_APPS,
    LIST_COUNT
};
typedef struct
{
    const void* lpVtbl;
    LONG refs;
} List;

static INetFwPolicy2Vtbl g_Policy2Vtbl;
static INetFwRulesVtbl g_RulesVtbl;
static INetFwMgrVtbl g_MgrVtbl;
static INetFwPolicyVtbl g_PolicyVtbl;
static INetFwProfileVtbl g_ProfileVtbl;
static INetFwOpenPortsVtbl g_PortsVtbl;
static INetFwAuthorizedApplicationsVtbl g_AppsVtbl;
static const IID* const kListIids[LIST_COUNT] = {&IID_INetFwPolicy2,
                                                 &IID_INetFwRules,
                                                 &IID_INetFwMgr,
                                                 &IID_INetFwPolicy,
                                                 &IID_INetFwProfile,
                                                 &IID_INetFwOpenPorts,
                                                 &IID_INetFwAuthorizedApplications};
static const void* const kListVtbls[LIST_COUNT] = {&g_Policy2Vtbl, &g_RulesVtbl, &g_MgrVtbl, &g_PolicyVtbl,
                                                   &g_ProfileVtbl, &g_PortsVtbl, &g_AppsVtbl};

static ULONG STDMETHODCALLTYPE ListAddRef(IUnknown* This)
{
    return (ULONG)InterlockedIncrement(&((List*)This)->refs);
}

static ULONG STDMETHODCALLTYPE ListRelease(IUnknown* This)
{
    LONG refs = InterlockedDecrement(&((List*)This)->refs);
    if (refs == 0)
    {
        HeapFree(GetProcessHeap(), 0, This);
        InterlockedDecrement(&g_lLocks);
    }
    return (ULONG)refs;
}

static HRESULT STDMETHODCALLTYPE ListQueryInterface(IUnknown* This, REFIID riid, void** ppv)
{
    int kind;
    for (kind = 0; kind < LIST_COUNT; kind++)
        if (((List*)This)->lpVtbl == kListVtbls[kind])
            break;
    if (!IsEqualIID(riid, &IID_IUnknown) && !IsEqualIID(riid, &IID_IDispatch) &&
        (kind == LIST_COUNT || !IsEqualIID(riid, kListIids[kind])))
    {
        *ppv = NULL;
        return E_NOINTERFACE;
    }
    *ppv = This;
    ListAddRef(This);
    return S_OK;
}

static HRESULT NewList(enum ListKind kind, void** ppv)
{
    List* list = HeapAlloc(GetProcessHeap(), 0, sizeof(List));
    if (!ppv)
        return E_POINTER;
    *ppv = list;
    if (!list)
        return E_OUTOFMEMORY;
    list->lpVtbl = kListVtbls[kind];
    list->refs = 1;
    InterlockedIncrement(&g_lLocks);
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE Policy2_get_Rules(INetFwPolicy2* This, INetFwRules** rules)
{
    (void)This;
    CALL(L"Policy2.Rules");
    return NewList(LIST_RULES, (void**)rules);
}
static HRESULT STDMETHODCALLTYPE Policy2_get_CurrentProfileTypes(INetFwPolicy2* This, LONG* profiles)
{
    (void)This;
    CALL(L"Policy2.CurrentProfileTypes");
    *profiles = (LONG)Switch(L"CurrentProfileTypes", NET_FW_PROFILE2_PRIVATE);
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE Rules_Item(INetFwRules* This, BSTR name, INetFwRule** rule)
{
    WCHAR sub[64];
    (void)This;
    CALL(L"Rules.Item");
    *rule = NULL;
    if (!name || !FindEntry(L"Rules", L"Name", name, sub))
        return NOT_FOUND;
    *rule = (INetFwRule*)Load(KIND_RULE, sub);
    return *rule ? S_OK : E_OUTOFMEMORY;
}
static HRESULT STDMETHODCALLTYPE Rules_Add(INetFwRules* This, INetFwRule* rule)
{
    Item* item = (Item*)rule;
    WCHAR sub[64];
    (void)This;
    CALL(L"Rules.Add");
    if (!item || item->lpVtbl != &g_RuleVtbl || !item->text[R_NAME])
        return E_INVALIDARG;
    NewEntry(L"Rules", sub);
    Attach(item, sub);
    return S_OK;
}
static HRESULT STDMETHODCALLTYPE Rules_Remove(INetFwRules* This, BSTR name)
{
    WCHAR sub[64];
    (void)This;
    CALL(L"Rules.Remove");
    while (name && FindEntry(L"Rules", L"Name", name, sub))
        DeleteEntry(sub);
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE Mgr_get_LocalPolicy(INetFwMgr* This, INetFwPolicy** policy)
{
    (void)This;
    CALL(L"Mgr.LocalPolicy");
    return NewList(LIST_POLICY, (void**)policy);
}
static HRESULT STDMETHODCALLTYPE Policy_get_CurrentProfile(INetFwPolicy* This, INetFwProfile** profile)
{
    (void)This;
    CALL(L"Policy.CurrentProfile");
    return NewList(LIST_PROFILE, (void**)profile);
}
/* The value is written before the call may fail, as a failing getter may leave it. */
static HRESULT STDMETHODCALLTYPE Profile_get_ExceptionsNotAllowed(INetFwProfile* This, VARIANT_BOOL* notAllowed)
{
    (void)This;
    *notAllowed = Switch(L"ExceptionsNotAllowed", 0) ? VARIANT_TRUE : VARIANT_FALSE;
    return Call(L"Profile.ExceptionsNotAllowed");
}
static HRESULT STDMETHODCALLTYPE Profile_get_GloballyOpenPorts(INetFwProfile* This, INetFwOpenPorts** ports)
{
    (void)This;
    CALL(L"Profile.GloballyOpenPorts");
    return NewList(LIST_PORTS, (void**)ports);
}
static HRESULT STDMETHODCALLTYPE Profile_get_AuthorizedApplications(INetFwProfile* This,
                                                                    INetFwAuthorizedApplications** apps)
{
    (void)This;
    CALL(L"Profile.AuthorizedApplications");
    return NewList(LIST_APPS, (void**)apps);
}

static void PortKey(LONG port, LONG protocol, WCHAR* sub)
{
    _snwprintf(sub, 63, L"OpenPorts\\%ld-%ld", (long)port, (long)protocol);
}
static BOOL KeyExists(const WCHAR* sub)
{
    WCHAR path[128];
    HKEY key;
    _snwprintf(path, 127, L"%ls\\%ls", ROOT, sub);
    path[127] = 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key) != ERROR_SUCCESS)
        return FALSE;
    RegCloseKey(key);
    return TRUE;
}

static HRESULT STDMETHODCALLTYPE Ports_Item(INetFwOpenPorts* This, LONG port, NET_FW_IP_PROTOCOL protocol,
                                            INetFwOpenPort** out)
{
    WCHAR sub[64] = {0};
    (void)This;
    CALL(L"OpenPorts.Item");
    *out = NULL;
    PortKey(port, protocol, sub);
    if (!KeyExists(sub))
        return NOT_FOUND;
    *out = (INetFwOpenPort*)Load(KIND_PORT, sub);
    return *out ? S_OK : E_OUTOFMEMORY;
}
/* An open port of the same port and protocol is overwritten, as documented. */
static HRESULT STDMETHODCALLTYPE Ports_Add(INetFwOpenPorts* This, INetFwOpenPort* port)
{
    Item* item = (Item*)port;
    WCHAR sub[64] = {0};
    (void)This;
    CALL(L"OpenPorts.Add");
    if (!item || item->lpVtbl != &g_PortVtbl || !item->text[P_NAME] || item->number[P_PORT] == 0)
        return E_INVALIDARG;
    PortKey(item->number[P_PORT], item->number[P_PROTOCOL], sub);
    DeleteEntry(sub);
    Attach(item, sub);
    return S_OK;
}
static HRESULT STDMETHODCALLTYPE Ports_Remove(INetFwOpenPorts* This, LONG port, NET_FW_IP_PROTOCOL protocol)
{
    WCHAR sub[64] = {0};
    (void)This;
    CALL(L"OpenPorts.Remove");
    PortKey(port, protocol, sub);
    if (!KeyExists(sub))
        return NOT_FOUND;
    DeleteEntry(sub);
    return S_OK;
}

static HRESULT STDMETHODCALLTYPE Apps_Item(INetFwAuthorizedApplications* This, BSTR image,
                                           INetFwAuthorizedApplication** out)
{
    WCHAR sub[64];
    (void)This;
    CALL(L"AuthorizedApps.Item");
    *out = NULL;
    if (!image || !FindEntry(L"AuthorizedApplications", L"ProcessImageFileName", image, sub))
        return NOT_FOUND;
    *out = (INetFwAuthorizedApplication*)Load(KIND_APP, sub);
    return *out ? S_OK : E_OUTOFMEMORY;
}
/* Keyed by image path: a program already listed is overwritten. */
static HRESULT STDMETHODCALLTYPE Apps_Add(INetFwAuthorizedApplications* This, INetFwAuthorizedApplication* app)
{
    Item* item = (Item*)app;
    WCHAR sub[64];
    (void)This;
    CALL(L"AuthorizedApps.Add");
    if (!item || item->lpVtbl != &g_AppVtbl || !item->text[A_NAME] || !item->text[A_IMAGE])
        return E_INVALIDARG;
    if (!FindEntry(L"AuthorizedApplications", L"ProcessImageFileName", item->text[A_IMAGE], sub))
        NewEntry(L"AuthorizedApplications", sub);
    Attach(item, sub);
    return S_OK;
}
static HRESULT STDMETHODCALLTYPE Apps_Remove(INetFwAuthorizedApplications* This, BSTR image)
{
    WCHAR sub[64];
    (void)This;
    CALL(L"AuthorizedApps.Remove");
    if (!image || !FindEntry(L"AuthorizedApplications", L"ProcessImageFileName", image, sub))
        return NOT_FOUND;
    DeleteEntry(sub);
    return S_OK;
}

static void FillListVtbl(void* vtbl, size_t size)
{
    FillVtbl(vtbl, size);
    ((void**)vtbl)[0] = (void*)ListQueryInterface;
    ((void**)vtbl)[1] = (void*)ListAddRef;
    ((void**)vtbl)[2] = (void*)ListRelease;
}

static void BuildVtbls(void)
{
    FillVtbl(&g_RuleVtbl, sizeof(g_RuleVtbl));
    g_RuleVtbl.put_Name = Rule_put_Name;
    g_RuleVtbl.put_Description = Rule_put_Description;
    g_RuleVtbl.put_ApplicationName = Rule_put_ApplicationName;
    g_RuleVtbl.put_ServiceName = Rule_put_ServiceName;
    g_RuleVtbl.put_Protocol = Rule_put_Protocol;
    g_RuleVtbl.put_LocalPorts = Rule_put_LocalPorts;
    g_RuleVtbl.put_RemotePorts = Rule_put_RemotePorts;
    g_RuleVtbl.put_LocalAddresses = Rule_put_LocalAddresses;
    g_RuleVtbl.put_RemoteAddresses = Rule_put_RemoteAddresses;
    g_RuleVtbl.put_Direction = Rule_put_Direction;
    g_RuleVtbl.put_Enabled = Rule_put_Enabled;
    g_RuleVtbl.put_Profiles = Rule_put_Profiles;
    g_RuleVtbl.put_EdgeTraversal = Rule_put_EdgeTraversal;
    g_RuleVtbl.put_EdgeTraversalOptions = Rule_put_EdgeTraversalOptions;

    FillVtbl(&g_PortVtbl, sizeof(g_PortVtbl));
    g_PortVtbl.put_Name = Port_put_Name;
    g_PortVtbl.put_Protocol = Port_put_Protocol;
    g_PortVtbl.put_Port = Port_put_Port;
    g_PortVtbl.put_RemoteAddresses = Port_put_RemoteAddresses;
    g_PortVtbl.put_Enabled = Port_put_Enabled;
    g_PortVtbl.get_Enabled = Port_get_Enabled;

    FillVtbl(&g_AppVtbl, sizeof(g_AppVtbl));
    g_AppVtbl.put_Name = App_put_Name;
    g_AppVtbl.put_ProcessImageFileName = App_put_Image;
    g_AppVtbl.put_RemoteAddresses = App_put_RemoteAddresses;
    g_AppVtbl.put_Enabled = App_put_Enabled;
    g_AppVtbl.get_Enabled = App_get_Enabled;

    FillListVtbl(&g_Policy2Vtbl, sizeof(g_Policy2Vtbl));
    g_Policy2Vtbl.get_Rules = Policy2_get_Rules;
    g_Policy2Vtbl.get_CurrentProfileTypes = Policy2_get_CurrentProfileTypes;
    FillListVtbl(&g_RulesVtbl, sizeof(g_RulesVtbl));
    g_RulesVtbl.Item = Rules_Item;
    g_RulesVtbl.Add = Rules_Add;
    g_RulesVtbl.Remove = Rules_Remove;
    FillListVtbl(&g_MgrVtbl, sizeof(g_MgrVtbl));
    g_MgrVtbl.get_LocalPolicy = Mgr_get_LocalPolicy;
    FillListVtbl(&g_PolicyVtbl, sizeof(g_PolicyVtbl));
    g_PolicyVtbl.get_CurrentProfile = Policy_get_CurrentProfile;
    FillListVtbl(&g_ProfileVtbl, sizeof(g_ProfileVtbl));
    g_ProfileVtbl.get_ExceptionsNotAllowed = Profile_get_ExceptionsNotAllowed;
    g_ProfileVtbl.get_GloballyOpenPorts = Profile_get_GloballyOpenPorts;
    g_ProfileVtbl.get_AuthorizedApplications = Profile_get_AuthorizedApplications;
    FillListVtbl(&g_PortsVtbl, sizeof(g_PortsVtbl));
    g_PortsVtbl.Item = Ports_Item;
    g_PortsVtbl.Add = Ports_Add;
    g_PortsVtbl.Remove = Ports_Remove;
    FillListVtbl(&g_AppsVtbl, sizeof(g_AppsVtbl));
    g_AppsVtbl.Item = Apps_Item;
    g_AppsVtbl.Add = Apps_Add;
    g_AppsVtbl.Remove = Apps_Remove;
}

/* ------------------------------------------------------------------ class factory and registration */

static const CLSID kClsids[] = {
    {0xE2B3C97F, 0x6AE1, 0x41AC, {0x81, 0x7A, 0xF6, 0xF9, 0x21, 0x66, 0xD7, 0xDD}}, /* NetFwPolicy2 */
    {0x2C5BC43E, 0x3369, 0x4C33, {0xAB, 0x0C, 0xBE, 0x94, 0x69, 0x67, 0x7A, 0xF4}}, /* NetFwRule */
    {0x304CE942, 0x6E39, 0x40D8, {0x94, 0x3A, 0xB9, 0x13, 0xC4, 0x0C, 0x9C, 0xD4}}, /* NetFwMgr */
    {0x0CA545C6, 0x37AD, 0x4A6C, {0xBF, 0x92, 0x9F, 0x76, 0x10, 0x06, 0x7E, 0xF5}}, /* NetFwOpenPort */
    {0xEC9846B3, 0x2762, 0x4A6B, {0xA2, 0x14, 0x6A, 0xCB, 0x60, 0x34, 0x62, 0xD2}}, /* NetFwAuthorizedApplication */
};
static const WCHAR* const kClassNames[] = {L"NetFwPolicy2", L"NetFwRule", L"NetFwMgr", L"NetFwOpenPort",
                                           L"NetFwAuthorizedApplication"};
enum
{
    CLASS_COUNT = 5
};

typedef struct
{
    IClassFactoryVtbl* lpVtbl;
    int index;
} Factory;

static HRESULT STDMETHODCALLTYPE FactoryQueryInterface(IClassFactory* This, REFIID riid, void** ppv)
{
    if (!IsEqualIID(riid, &IID_IUnknown) && !IsEqualIID(riid, &IID_IClassFactory))
    {
        *ppv = NULL;
        return E_NOINTERFACE;
    }
    *ppv = This;
    return S_OK;
}
static ULONG STDMETHODCALLTYPE FactoryAddRef(IClassFactory* This)
{
    (void)This;
    return 2;
}
static ULONG STDMETHODCALLTYPE FactoryRelease(IClassFactory* This)
{
    (void)This;
    return 1;
}
static HRESULT STDMETHODCALLTYPE FactoryLockServer(IClassFactory* This, BOOL lock)
{
    (void)This;
    if (lock)
        InterlockedIncrement(&g_lLocks);
    else
        InterlockedDecrement(&g_lLocks);
    return S_OK;
}
static HRESULT STDMETHODCALLTYPE FactoryCreateInstance(IClassFactory* This, IUnknown* outer, REFIID riid, void** ppv)
{
    static const enum ListKind kLists[] = {LIST_POLICY2, LIST_COUNT, LIST_MGR};
    static const enum Kind kItems[] = {KIND_RULE, KIND_RULE, KIND_RULE, KIND_PORT, KIND_APP};
    int index = ((Factory*)This)->index;
    WCHAR method[64];
    IUnknown* object;
    HRESULT hr;
    *ppv = NULL;
    if (outer)
        return CLASS_E_NOAGGREGATION;
    if (index == 0 && Switch(L"NoPolicy2", 0))
        return REGDB_E_CLASSNOTREG;
    _snwprintf(method, 63, L"Create.%ls", kClassNames[index]);
    method[63] = 0;
    CALL(method);
    if (index == 0 || index == 2)
    {
        hr = NewList(kLists[index], (void**)&object);
        if (FAILED(hr))
            return hr;
    }
    else if (!(object = (IUnknown*)NewItem(kItems[index])))
        return E_OUTOFMEMORY;
    hr = object->lpVtbl->QueryInterface(object, riid, ppv);
    object->lpVtbl->Release(object);
    return hr;
}

static IClassFactoryVtbl g_FactoryVtbl = {FactoryQueryInterface, FactoryAddRef, FactoryRelease, FactoryCreateInstance,
                                          FactoryLockServer};
static Factory g_Factories[CLASS_COUNT] = {
    {&g_FactoryVtbl, 0}, {&g_FactoryVtbl, 1}, {&g_FactoryVtbl, 2}, {&g_FactoryVtbl, 3}, {&g_FactoryVtbl, 4}};

BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD reason, LPVOID reserved)
{
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH)
    {
        g_hModule = hInstance;
        BuildVtbls();
        DisableThreadLibraryCalls(hInstance);
    }
    return TRUE;
}

HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv)
{
    int i;
    for (i = 0; i < CLASS_COUNT; i++)
        if (IsEqualCLSID(clsid, &kClsids[i]))
            return FactoryQueryInterface((IClassFactory*)&g_Factories[i], riid, ppv);
    *ppv = NULL;
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT WINAPI DllCanUnloadNow(void)
{
    return g_lLocks == 0 ? S_OK : S_FALSE;
}

static void ClassKey(int index, WCHAR* path)
{
    WCHAR clsid[40];
    StringFromGUID2(&kClsids[index], clsid, 40);
    _snwprintf(path, 127, L"Software\\Classes\\CLSID\\%ls\\InprocServer32", clsid);
    path[127] = 0;
}

static BOOL CopyValue(const WCHAR* fromKey, const WCHAR* fromName, const WCHAR* toKey, const WCHAR* toName)
{
    WCHAR data[MAX_PATH + 1];
    DWORD size = sizeof(data) - sizeof(WCHAR);
    HKEY key;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, fromKey, fromName, RRF_RT_REG_SZ, NULL, data, &size) != ERROR_SUCCESS)
        return FALSE;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, toKey, 0, NULL, 0, KEY_SET_VALUE, NULL, &key, NULL) != ERROR_SUCCESS)
        return FALSE;
    RegSetValueExW(key, toName, 0, REG_SZ, (const BYTE*)data, size);
    RegCloseKey(key);
    return TRUE;
}

static BOOL RegisteredHere(const WCHAR* path, const WCHAR* self)
{
    WCHAR current[MAX_PATH + 1];
    DWORD size = sizeof(current) - sizeof(WCHAR);
    return RegGetValueW(HKEY_LOCAL_MACHINE, path, NULL, RRF_RT_REG_SZ, NULL, current, &size) == ERROR_SUCCESS &&
           SameText(current, self);
}

/* Registers the five classes here, keeping the registration it replaces
 * (once) under SAVED; DllUnregisterServer puts that back. */
HRESULT WINAPI DllRegisterServer(void)
{
    WCHAR self[MAX_PATH + 1] = {0}, path[128], saved[128];
    HKEY key;
    int i;
    GetModuleFileNameW(g_hModule, self, MAX_PATH);
    for (i = 0; i < CLASS_COUNT; i++)
    {
        ClassKey(i, path);
        _snwprintf(saved, 127, L"%ls\\%ls", SAVED, kClassNames[i]);
        saved[127] = 0;
        if (!RegisteredHere(path, self))
        {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, saved);
            CopyValue(path, NULL, saved, L"Server");
            CopyValue(path, L"ThreadingModel", saved, L"ThreadingModel");
        }
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, NULL, 0, KEY_SET_VALUE, NULL, &key, NULL) != ERROR_SUCCESS)
            return E_ACCESSDENIED;
        RegSetValueExW(key, NULL, 0, REG_SZ, (const BYTE*)self, (DWORD)((wcslen(self) + 1) * sizeof(WCHAR)));
        RegSetValueExW(key, L"ThreadingModel", 0, REG_SZ, (const BYTE*)L"Both", sizeof(L"Both"));
        RegCloseKey(key);
    }
    return S_OK;
}

HRESULT WINAPI DllUnregisterServer(void)
{
    WCHAR path[128], saved[128];
    int i;
    for (i = 0; i < CLASS_COUNT; i++)
    {
        ClassKey(i, path);
        _snwprintf(saved, 127, L"%ls\\%ls", SAVED, kClassNames[i]);
        saved[127] = 0;
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, path);
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, path);
        CopyValue(saved, L"Server", path, NULL);
        CopyValue(saved, L"ThreadingModel", path, L"ThreadingModel");
    }
    return S_OK;
}
