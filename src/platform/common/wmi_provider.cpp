// The provider framework's parts both backends share: instances, the
// provider base class and its registry in the process, the framework login,
// and WQL queries.
#include <algorithm>
#include <atomic>
#include <cctype>
#include <mutex>
#include <set>

#include "platform/text.h"
#include "platform/wmi.h"
#include "wmi_internal.h"

namespace platform {

// ---- instances ------------------------------------------------------------------------

struct CInstance::Property {
    std::u16string name;
    VARIANT value;
    Property() { VariantInit(&value); }
    ~Property() { VariantClear(&value); }
    Property(const Property&) = delete;
    Property& operator=(const Property&) = delete;
};

CInstance::CInstance(std::u16string className) : className_(std::move(className)) {}
CInstance::~CInstance() = default;

std::unique_ptr<CInstance> CInstance::Clone() const {
    auto copy = std::make_unique<CInstance>(className_);
    for (const auto& p : properties_) {
        if (!copy->SetVariant(p->name, p->value)) {
            return nullptr;
        }
    }
    return copy;
}

CInstance::Property* CInstance::Slot(std::u16string_view name) {
    for (const auto& p : properties_) {
        if (NamesEqual(p->name, name)) {
            return p.get();
        }
    }
    auto made = std::make_unique<Property>();
    made->name = std::u16string(name);
    properties_.push_back(std::move(made));
    return properties_.back().get();
}

const VARIANT* CInstance::Find(std::u16string_view name) const {
    for (const auto& p : properties_) {
        if (NamesEqual(p->name, name)) {
            return p->value.vt == VT_EMPTY || p->value.vt == VT_NULL ? nullptr : &p->value;
        }
    }
    return nullptr;
}

bool CInstance::SetVariant(std::u16string_view name, const VARIANT& value) {
    VARIANT copy;
    if (FAILED(VariantCopy(&copy, &value))) {
        return false;
    }
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value = copy;
    return true;
}

void CInstance::SetNull(std::u16string_view name) {
    VariantClear(&Slot(name)->value);
}

bool CInstance::SetCHString(std::u16string_view name, std::u16string_view value) {
    BSTR text = SysAllocStringLen(value.data(), static_cast<UINT>(value.size()));
    if (text == nullptr) {
        return false;
    }
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value.vt = VT_BSTR;
    slot->value.bstrVal = text;
    return true;
}

bool CInstance::SetDWORD(std::u16string_view name, std::uint32_t value) {
    return SetSint32(name, static_cast<std::int32_t>(value));
}

bool CInstance::SetSint32(std::u16string_view name, std::int32_t value) {
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value.vt = VT_I4;
    slot->value.lVal = value;
    return true;
}

bool CInstance::Setbool(std::u16string_view name, bool value) {
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value.vt = VT_BOOL;
    slot->value.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
    return true;
}

bool CInstance::SetStringArray(std::u16string_view name,
                               const std::vector<std::u16string>& values) {
    UniqueSafeArray array = MakeStringArray(values);
    if (!array) {
        return false;
    }
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value.vt = VT_ARRAY | VT_BSTR;
    slot->value.parray = array.release();
    return true;
}

bool CInstance::SetSint32Array(std::u16string_view name, const std::vector<std::int32_t>& values) {
    UniqueSafeArray array = MakeLongArray(values);
    if (!array) {
        return false;
    }
    Property* slot = Slot(name);
    VariantClear(&slot->value);
    slot->value.vt = VT_ARRAY | VT_I4;
    slot->value.parray = array.release();
    return true;
}

bool CInstance::GetCHString(std::u16string_view name, std::u16string* value) const {
    const VARIANT* v = Find(name);
    if (v == nullptr || v->vt != VT_BSTR) {
        return false;
    }
    *value = std::u16string(BstrView(v->bstrVal));
    return true;
}

bool CInstance::GetDWORD(std::u16string_view name, std::uint32_t* value) const {
    std::int32_t n = 0;
    if (!GetSint32(name, &n)) {
        return false;
    }
    *value = static_cast<std::uint32_t>(n);
    return true;
}

bool CInstance::GetSint32(std::u16string_view name, std::int32_t* value) const {
    const VARIANT* v = Find(name);
    if (v == nullptr || v->vt != VT_I4) {
        return false;
    }
    *value = v->lVal;
    return true;
}

bool CInstance::Getbool(std::u16string_view name, bool* value) const {
    const VARIANT* v = Find(name);
    if (v == nullptr || v->vt != VT_BOOL) {
        return false;
    }
    *value = v->boolVal != VARIANT_FALSE;
    return true;
}

bool CInstance::GetVariant(std::u16string_view name, VARIANT* value) const {
    VariantClear(value);
    const VARIANT* v = Find(name);
    return v != nullptr && SUCCEEDED(VariantCopy(value, v));
}

std::vector<std::u16string> CInstance::PropertyNames() const {
    std::vector<std::u16string> names;
    for (const auto& p : properties_) {
        if (p->value.vt != VT_EMPTY && p->value.vt != VT_NULL) {
            names.push_back(p->name);
        }
    }
    return names;
}

// ---- schemas ------------------------------------------------------------------------------

const PropertySchema* ClassSchema::FindProperty(std::u16string_view wanted) const {
    for (const PropertySchema& p : properties) {
        if (NamesEqual(p.name, wanted)) {
            return &p;
        }
    }
    return nullptr;
}

const MethodSchema* ClassSchema::FindMethod(std::u16string_view wanted) const {
    for (const MethodSchema& m : methods) {
        if (m.name == wanted) {
            return &m;
        }
    }
    return nullptr;
}

// ---- providers ------------------------------------------------------------------------------

namespace {

std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}
std::vector<Provider*>& Providers() {
    static std::vector<Provider*> list;
    return list;
}

}  // namespace

Provider::Provider(std::u16string_view className, std::u16string_view nameSpace)
    : className_(className), nameSpace_(nameSpace) {
    const std::lock_guard<std::mutex> hold(RegistryLock());
    Providers().push_back(this);
}

Provider::~Provider() {
    const std::lock_guard<std::mutex> hold(RegistryLock());
    auto& list = Providers();
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

Provider* Provider::Find(std::u16string_view nameSpace, std::u16string_view className) {
    const std::lock_guard<std::mutex> hold(RegistryLock());
    for (Provider* p : Providers()) {
        if (NamesEqual(p->className_, className) && NamesEqual(p->nameSpace_, nameSpace)) {
            return p;
        }
    }
    return nullptr;
}

HRESULT Provider::EnumerateInstances(MethodContext*, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT Provider::GetObject(CInstance*, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT Provider::ExecQuery(MethodContext*, const CFrameworkQuery&, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT Provider::PutInstance(const CInstance&, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT Provider::DeleteInstance(const CInstance&, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}
HRESULT Provider::ExecMethod(const CInstance&, std::u16string_view, CInstance*, CInstance*, long) {
    return WBEM_E_PROVIDER_NOT_CAPABLE;
}

std::unique_ptr<CInstance> Provider::CreateNewInstance(MethodContext*) const {
    return std::make_unique<CInstance>(className_);
}

// ---- the framework login ---------------------------------------------------------------------

namespace {
std::set<std::u16string>& Logins() {
    static std::set<std::u16string> names;
    return names;
}
}  // namespace

std::atomic<long> g_glueObjects{0};

bool CWbemProviderGlue::FrameworkLoginDLL(std::u16string_view name) {
    if (name.empty()) {
        return false;
    }
    const std::lock_guard<std::mutex> hold(RegistryLock());
    Logins().insert(UpcaseName(name));
    return true;
}

bool CWbemProviderGlue::FrameworkLogoffDLL(std::u16string_view name) {
    const std::lock_guard<std::mutex> hold(RegistryLock());
    if (g_glueObjects.load() != 0) {
        return false;
    }
    Logins().erase(UpcaseName(name));
    return true;
}

long CWbemProviderGlue::ObjectsInUse() {
    return g_glueObjects.load();
}

// ---- WQL
// ------------------------------------------------------------------------------------------

namespace {

class WqlReader {
  public:
    explicit WqlReader(std::u16string_view text) : text_(text) {}

    void Blanks() {
        while (at_ < text_.size() && (text_[at_] == u' ' || text_[at_] == u'\t' ||
                                      text_[at_] == u'\r' || text_[at_] == u'\n')) {
            ++at_;
        }
    }
    bool AtEnd() {
        Blanks();
        return at_ >= text_.size();
    }
    std::u16string Word() {
        Blanks();
        const std::size_t start = at_;
        while (at_ < text_.size() && (IsAlnum(text_[at_]) || text_[at_] == u'_')) {
            ++at_;
        }
        return std::u16string(text_.substr(start, at_ - start));
    }
    bool Keyword(std::u16string_view word) {
        const std::size_t saved = at_;
        if (NamesEqual(Word(), word)) {
            return true;
        }
        at_ = saved;
        return false;
    }
    bool Char(char16_t c) {
        Blanks();
        if (at_ < text_.size() && text_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }
    // A quoted text (' or ") or a number.
    bool Literal(std::u16string* value, bool* isText) {
        Blanks();
        if (at_ >= text_.size()) {
            return false;
        }
        const char16_t quote = text_[at_];
        if (quote == u'\'' || quote == u'"') {
            ++at_;
            value->clear();
            while (at_ < text_.size() && text_[at_] != quote) {
                if (text_[at_] == u'\\' && at_ + 1 < text_.size()) {
                    ++at_;
                }
                *value += text_[at_++];
            }
            if (at_ >= text_.size()) {
                return false;
            }
            ++at_;
            *isText = true;
            return true;
        }
        const std::size_t start = at_;
        if (text_[at_] == u'-' || text_[at_] == u'+') {
            ++at_;
        }
        while (at_ < text_.size() && text_[at_] >= u'0' && text_[at_] <= u'9') {
            ++at_;
        }
        *value = std::u16string(text_.substr(start, at_ - start));
        *isText = false;
        return !value->empty() && (*value)[value->size() - 1] >= u'0' &&
               (*value)[value->size() - 1] <= u'9';
    }
    std::size_t Column() const { return at_ + 1; }

  private:
    static bool IsAlnum(char16_t c) {
        return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
    }
    std::u16string_view text_;
    std::size_t at_ = 0;
};

}  // namespace

HRESULT ParseWqlQuery(std::u16string_view text, CFrameworkQuery* query, std::string* error) {
    WqlReader r(text);
    CFrameworkQuery q;
    q.text = std::u16string(text);
    auto fail = [&](const char* reason) {
        if (error != nullptr) {
            *error = "line 1, column " + std::to_string(r.Column()) + ": " + reason;
        }
        return WBEM_E_INVALID_QUERY;
    };
    if (!r.Keyword(u"SELECT")) {
        return fail("expected SELECT");
    }
    if (!r.Char(u'*')) {
        return fail("only SELECT * is supported");
    }
    if (!r.Keyword(u"FROM")) {
        return fail("expected FROM");
    }
    q.className = r.Word();
    if (q.className.empty()) {
        return fail("expected a class name");
    }
    if (!r.AtEnd()) {
        if (!r.Keyword(u"WHERE")) {
            return fail("expected WHERE or the end");
        }
        q.whereProperty = r.Word();
        if (q.whereProperty.empty()) {
            return fail("expected a property name");
        }
        if (!r.Char(u'=')) {
            return fail("only = comparisons are supported");
        }
        if (!r.Literal(&q.whereValue, &q.whereIsText)) {
            return fail("expected a quoted text or a number");
        }
        if (!r.AtEnd()) {
            return fail("expected the end");
        }
    }
    *query = std::move(q);
    return WBEM_S_NO_ERROR;
}

bool QueryMatches(const CFrameworkQuery& query, const CInstance& instance) {
    if (query.whereProperty.empty()) {
        return true;
    }
    const VARIANT* v = instance.Find(query.whereProperty);
    if (v == nullptr) {
        return false;
    }
    if (v->vt == VT_BSTR) {
        return query.whereIsText && NamesEqual(BstrView(v->bstrVal), query.whereValue);
    }
    if (query.whereIsText) {
        return false;
    }
    long long wanted = 0;
    try {
        wanted = std::stoll(ToUtf8(query.whereValue));
    } catch (const std::exception&) {
        return false;  // beyond any property's range
    }
    if (v->vt == VT_I4) {
        return wanted == v->lVal || wanted == static_cast<std::uint32_t>(v->lVal);
    }
    if (v->vt == VT_BOOL) {
        return wanted == (v->boolVal != VARIANT_FALSE ? 1 : 0);
    }
    return false;
}

}  // namespace platform
