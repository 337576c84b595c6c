// Verification of user input against a template: each value's template
// entry, method, type and limits, then the required properties. The order
// of the checks and the messages are in docs/templates.md ("Verification").
#include <charconv>
#include <cstring>
#include <set>

#include "Orbel.h"
#include "ResponseExtendedInfo.h"
#include "ZLogPrint.h"
#include "ZUserInputTemplate.h"

namespace Orbel {

namespace {

constexpr char kOdataMark[] = "@odata.";

uint8_t WriteBits(eReqMethod method) {
    switch (method) {
        case eReqCreate:
            return UIT_METHOD_CreateOption | UIT_METHOD_CreateRequired;
        case eReqUpdate:
            return UIT_METHOD_PatchOption | UIT_METHOD_PatchRequired;
        case eReqAction:
            return UIT_METHOD_ActionOption | UIT_METHOD_ActionRequired;
        default:
            return 0;
    }
}

bool TypeAllowed(eUsrInValueType type, uint16_t allowed) {
    switch (type) {
        case USRIN_NULL:
            return allowed & UIT_TYPE_NULL;
        case USRIN_BOOL:
            return allowed & UIT_TYPE_BOOL;
        case USRIN_SNUM:
            return allowed & (UIT_TYPE_FLOAT | UIT_TYPE_SIGNED);
        case USRIN_UNUM:
            return allowed & (UIT_TYPE_FLOAT | UIT_TYPE_SIGNED | UIT_TYPE_UNSIGNED);
        case USRIN_STRING:
        case USRIN_RAWSTR:
            return allowed & UIT_TYPE_STRING;
        case USRIN_OBJECT:
            return allowed & UIT_TYPE_OBJECT;
        case USRIN_DOUBLE:
            return allowed & UIT_TYPE_FLOAT;
        case USRIN_ARRAY:
            return allowed & UIT_TYPE_ARRAY;
    }
    return false;
}

bool ParseNumber(const std::string& text, double& out) {
    const char* end = text.data() + text.size();
    auto res = std::from_chars(text.data(), end, out);
    return res.ec == std::errc() && res.ptr == end;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

std::string LastName(const std::string& jpath) {
    return jpath.substr(jpath.rfind('/') + 1);
}

class Verifier {
public:
    Verifier(ZUserInputTemplate& tmpl, const UsrInTemplateCache& cache,
             const sUsrInVerifyArgs& args, std::vector<sUsrInFault>* faults)
        : mTmpl(tmpl),
          mCache(cache),
          mArgs(args),
          mInput(*args.input),
          mFaults(faults),
          mAction(args.method == eReqAction),
          mWriteBits(WriteBits(args.method)),
          mMulti(tmpl.IsMultiExtInfoMode()) {}

    eRtCode Run() {
        if (mInput.empty() && !mAction) {
            _Fault(RESP_Base_EmptyJSON, {}, "");
            return RT_FAILURE;
        }
        if (!_CheckValues() && !mMulti) return RT_FAILURE;
        if (mStop) return RT_FAILURE;
        if (!mAction && mAnnotationsOnly && mFaultCount == 0) {
            _Fault(RESP_Base_NoOperation, {}, "");
            return RT_FAILURE;
        }
        _CheckRequired();
        return mFaultCount == 0 ? RT_SUCCESS : RT_FAILURE;
    }

private:
    const sPropertyAttrTag* _Find(const std::string& tpath) const {
        auto it = mCache.find(tpath);
        return it != mCache.end() ? it->second : nullptr;
    }

    // The related property and message argument of a user-input JPath.
    static std::string _Property(const std::string& jpath) { return jpath.substr(1); }

    void _Fault(eRespMsg msg, std::vector<std::string> args, const std::string& property) {
        ++mFaultCount;
        ZLOG(eZLogDebug, "Schema[%s]: %s on [%s].\n", mArgs.schemaName.c_str(),
             RespMsgID2Str(msg).c_str(), property.c_str());
        if (mArgs.extInfo != nullptr) {
            ResponseExtendedInfo& ext = *mArgs.extInfo;
            sExtendedInfo* info = ext.NewExtendedInfo(msg);
            for (size_t i = 0; info != nullptr && i < args.size(); ++i) {
                // The length limit is the one number among these arguments.
                unsigned int number = 0;
                if (msg == RESP_Base_StringValueTooLong && i == 1 &&
                    std::from_chars(args[i].data(), args[i].data() + args[i].size(), number).ec ==
                        std::errc()) {
                    ext.ExtendedInfo_AppendMsgArg(info, number);
                } else {
                    ext.ExtendedInfo_AppendMsgArg(info, args[i]);
                }
            }
            if (info != nullptr && !property.empty()) {
                ext.ExtendedInfo_AppendRelatedProperty(info, nullptr, property);
            }
        }
        if (mFaults != nullptr) mFaults->push_back(sUsrInFault{msg, std::move(args), property});
    }

    // A fault of a row whose action form adds the action name at the end.
    void _ValueFault(eRespMsg plain, eRespMsg action, const std::string& value,
                     const std::string& property) {
        if (mAction) {
            _Fault(action, {value, property, mArgs.actionName}, property);
        } else {
            _Fault(plain, {value, property}, property);
        }
    }

    void _NotAccepted(eRespMsg plain, const std::string& property) {
        if (mAction) {
            _Fault(RESP_Base_ActionParameterNotSupported, {property, mArgs.actionName}, property);
        } else {
            _Fault(plain, {property}, property);
        }
    }

    size_t _ItemCount(const std::string& jpath) const {
        size_t count = 0;
        const std::string prefix = jpath + "/";
        for (auto it = mInput.upper_bound(prefix); it != mInput.end(); ++it) {
            if (!StartsWith(it->first, prefix)) break;
            if (it->first.find('/', prefix.size()) == std::string::npos) ++count;
        }
        return count;
    }

    // The limits of one value; false after a fault.
    bool _CheckLimits(const std::string& jpath, const sUsrInCacheItem& item,
                      const sPropertyAttrTag& attr, const std::string& shown) {
        const auto& lim = attr.limits;
        const std::string property = _Property(jpath);
        const bool hasMin = (lim.presence & UIT_LIMIT_MIN) != 0;
        const bool hasMax = (lim.presence & UIT_LIMIT_MAX) != 0;
        switch (item.type) {
            case USRIN_STRING:
            case USRIN_RAWSTR: {
                const std::string& text = item.value;
                if (!ZUserInputTemplate::_IsAllowedString(text.c_str(),
                                                          static_cast<unsigned>(text.size()))) {
                    _ValueFault(RESP_Base_PropertyValueFormatError,
                                RESP_Base_ActionParameterValueFormatError, shown, property);
                    return false;
                }
                if (hasMax && static_cast<double>(text.size()) > lim.max) {
                    _Fault(RESP_Base_StringValueTooLong,
                           {shown, std::to_string(static_cast<unsigned long long>(lim.max))},
                           property);
                    return false;
                }
                if ((hasMin && static_cast<double>(text.size()) < lim.min) ||
                    (lim.compiled != nullptr &&
                     regexec(&lim.compiled->re, text.c_str(), 0, nullptr, 0) != 0)) {
                    _ValueFault(RESP_Base_PropertyValueFormatError,
                                RESP_Base_ActionParameterValueFormatError, shown, property);
                    return false;
                }
                if (!lim.enumStrings.empty()) {
                    bool listed = false;
                    for (const std::string& e : lim.enumStrings) listed = listed || e == text;
                    if (!listed) {
                        // An action answers with its value-format message.
                        _ValueFault(RESP_Base_PropertyValueNotInList,
                                    RESP_Base_ActionParameterValueFormatError, shown, property);
                        return false;
                    }
                }
                return true;
            }
            case USRIN_SNUM:
            case USRIN_UNUM:
            case USRIN_DOUBLE: {
                double number = 0;
                const bool parsed = ParseNumber(item.value, number);
                if (!parsed || (hasMin && number < lim.min) || (hasMax && number > lim.max)) {
                    _ValueFault(RESP_Base_PropertyValueFormatError,
                                RESP_Base_ActionParameterValueFormatError, shown, property);
                    return false;
                }
                if (!lim.enumValues.empty() && lim.enumValues.count(number) == 0) {
                    _ValueFault(RESP_Base_PropertyValueNotInList,
                                RESP_Base_ActionParameterValueFormatError, shown, property);
                    return false;
                }
                return true;
            }
            case USRIN_ARRAY: {
                const double count = static_cast<double>(_ItemCount(jpath));
                bool ok = true;
                if (lim.arrayType == UIT_ARRAY_Rigid) {
                    ok = count == lim.max;
                } else if (lim.arrayType == UIT_ARRAY_FixedLength) {
                    // A patch may change the leading items; a new one has them all.
                    ok = mArgs.method == eReqUpdate ? count <= lim.max : count == lim.max;
                } else {
                    ok = !(hasMin && count < lim.min) && !(hasMax && count > lim.max);
                }
                if (!ok) {
                    _ValueFault(RESP_Base_PropertyValueFormatError,
                                RESP_Base_ActionParameterValueFormatError, "[]", property);
                }
                return ok;
            }
            default:
                return true;
        }
    }

    // Every value in body order (a container before its members). False
    // after the first fault; with multi mode the walk goes on.
    bool _CheckValues() {
        std::string skipBelow;  // members of a refused or unchecked value
        for (auto& entry : mInput) {
            const std::string& jpath = entry.first;
            sUsrInCacheItem& item = entry.second;
            if (!skipBelow.empty() && StartsWith(jpath, skipBelow)) continue;
            const std::string tpath = jpath.size() > ZUserInputTemplate::kMaxUsrInJPathLength
                                          ? std::string()
                                          : ZUserInputTemplate::UsrInJPath2TemplateJPath(
                                                mInput, jpath, mArgs.method, mArgs.actionName);
            if (tpath.empty()) {
                // Not a body the front end makes: nothing more is read from it.
                _Fault(RESP_ExtErr_BadRequest, {}, "");
                mStop = true;
                return false;
            }
            skipBelow = jpath + "/";
            const std::string name = LastName(jpath);
            const sPropertyAttrTag* attr = _Find(tpath);
            const bool annotation = name.find(kOdataMark) != std::string::npos;
            if (annotation && (attr == nullptr || (attr->supportMethods & mWriteBits) == 0)) {
                continue;  // annotations the client echoes back are not input
            }
            mAnnotationsOnly = mAnnotationsOnly && annotation;
            const std::string property = _Property(jpath);
            bool ok = true;
            if (attr == nullptr) {
                const size_t slash = tpath.rfind('/');
                if (slash != std::string::npos &&
                    tpath.compare(slash, std::string::npos, "/{}") == 0) {
                    ZLOG(eZLogError, "Cannot find %s/0 in user input template cache.\n",
                         tpath.substr(0, slash).c_str());
                }
                _NotAccepted(RESP_Base_PropertyUnknown, property);
                ok = false;
            } else if ((attr->supportMethods & mWriteBits) == 0) {
                _NotAccepted(RESP_Base_PropertyNotWritable, property);
                ok = false;
            } else if ((attr->dataTypes & UIT_TYPE_IGNORE) != 0) {
                continue;  // accepted with whatever it holds
            } else {
                const bool secure = (attr->flags & UIT_FLAG_SecureProperty) != 0;
                const std::string shown = item.type == USRIN_OBJECT  ? "{}"
                                          : item.type == USRIN_ARRAY ? "[]"
                                          : item.type == USRIN_NULL  ? "null"
                                          : secure                   ? kSecretMask
                                                                     : item.value;
                if (!TypeAllowed(item.type, attr->dataTypes)) {
                    _ValueFault(RESP_Base_PropertyValueTypeError,
                                RESP_Base_ActionParameterValueTypeError, shown, property);
                    ok = false;
                } else {
                    ok = _CheckLimits(jpath, item, *attr, shown);
                }
            }
            if (ok) {
                skipBelow.clear();
            } else if (!mMulti) {
                return false;
            }
        }
        return mFaultCount == 0;
    }

    void _CheckRequired() {
        const std::string root =
            mAction ? std::string("/Actions/") + mArgs.actionName : std::string();
        for (const std::string& required : mTmpl.GetRequiredList(mArgs.method)) {
            if (mAction && !StartsWith(required, root + "/")) continue;
            const std::string inner = required.substr(root.size());  // "/A/{}/B"
            const size_t slash = inner.rfind('/');
            const std::string parent = inner.substr(0, slash);  // "" for the body root
            const std::string name = inner.substr(slash + 1);
            std::vector<std::string> owners;
            if (parent.empty()) {
                owners.push_back("");
            } else {
                for (const auto& entry : mInput) {
                    if (entry.second.type != USRIN_OBJECT) continue;
                    const std::string tpath = ZUserInputTemplate::UsrInJPath2TemplateJPath(
                        mInput, entry.first, mArgs.method, mArgs.actionName);
                    if (tpath == root + parent) owners.push_back(entry.first);
                }
            }
            for (const std::string& owner : owners) {
                const std::string jpath = owner + "/" + name;
                if (mInput.count(jpath) != 0) continue;
                if (mAction) {
                    _Fault(RESP_Base_ActionParameterMissing, {mArgs.actionName, _Property(jpath)},
                           _Property(jpath));
                } else {
                    _Fault(RESP_Base_PropertyMissing, {_Property(jpath)}, _Property(jpath));
                }
                if (!mMulti) return;
            }
        }
    }

    ZUserInputTemplate& mTmpl;
    const UsrInTemplateCache& mCache;
    const sUsrInVerifyArgs& mArgs;
    UsrInCache& mInput;
    std::vector<sUsrInFault>* mFaults;
    const bool mAction;
    const uint8_t mWriteBits;
    const bool mMulti;
    unsigned mFaultCount = 0;
    bool mStop = false;            // the input cannot be read further
    bool mAnnotationsOnly = true;  // every property seen so far is an annotation
};

}  // namespace

const char* UsrInValueTypeWord(eUsrInValueType type) {
    static const char* const kWords[] = {"null",   "bool",   "sNum",   "uNum", "string",
                                         "object", "rawStr", "double", "array"};
    return type <= USRIN_ARRAY ? kWords[type] : "?";
}

bool ZUserInputTemplate::_IsAllowedString(const char* text, unsigned int length) {
    if (text == nullptr) return true;
    for (unsigned int i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const bool printable = c >= 0x20 && c <= 0x7E;
        const bool blank = c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
        if (!printable && !blank) return false;
    }
    return true;
}

std::string ZUserInputTemplate::UsrInJPath2TemplateJPath(const UsrInCache& input,
                                                         const std::string& jpath,
                                                         eReqMethod method,
                                                         const std::string& actionName) {
    if (jpath.size() < 2 || jpath[0] != '/') return std::string();
    std::string tpath = method == eReqAction ? "/Actions/" + actionName : std::string();
    size_t start = 1;
    while (start <= jpath.size()) {
        size_t end = jpath.find('/', start);
        if (end == std::string::npos) end = jpath.size();
        if (end == start) return std::string();  // an empty name
        const std::string parent = jpath.substr(0, start - 1);
        auto it = parent.empty() ? input.end() : input.find(parent);
        if (it != input.end() && it->second.type == USRIN_ARRAY) {
            for (size_t i = start; i < end; ++i) {
                if (jpath[i] < '0' || jpath[i] > '9') return std::string();
            }
            tpath += "/";
            tpath += kIndexWildcard;
        } else {
            tpath.append(jpath, start - 1, end - start + 1);
        }
        start = end + 1;
    }
    return tpath;
}

void ZUserInputTemplate::AssignUsrInPptFlagFromUsrInTemplate(UsrInCache& input, eReqMethod method,
                                                             const std::string& actionName) {
    MutexLock lock(mMutex);
    if (mCache == nullptr) {
        ZLOG(eZLogDebug, "[%s] skip copy the property flag.\n", mName.c_str());
        return;
    }
    ZLOG(eZLogDebug, "Copy the property flag from file [%s].\n", mFilePath.c_str());
    for (auto& entry : input) {
        auto it = mCache->find(UsrInJPath2TemplateJPath(input, entry.first, method, actionName));
        if (it != mCache->end()) entry.second.flags = it->second->flags;
    }
}

eRtCode ZUserInputTemplate::VerifyUserInputData(ZUserInputTemplate* tmpl,
                                                const sUsrInVerifyArgs& args,
                                                std::vector<sUsrInFault>* faults) {
    if (tmpl == nullptr || args.input == nullptr) {
        ZLOG(eZLogError, "[%s]: Input argument 'usrInTemp' is NULL.\n", args.schemaName.c_str());
        return RT_INVALID_ARG;
    }
    ZLOG(eZLogInfo, "Using [%s] file.\n", tmpl->GetTemplateFilePath().c_str());
    UsrInTemplateCache* cache = tmpl->GetCache();
    const eRtCode attached = tmpl->AttachCache(cache);
    if (attached == RT_NO_VERIFY) {
        ZLOG(eZLogInfo, "[%s] Ignore user input verify.\n", args.schemaName.c_str());
        return RT_SUCCESS;
    }
    if (attached != RT_SUCCESS) {
        ZLOG(eZLogError, "Failed to call usrInTemp->AttachCache(). res:%d\n",
             static_cast<int>(attached));
        // A template that did not load: the input is not let through unchecked,
        // and the client learns that the fault is the service's.
        if (args.extInfo != nullptr) args.extInfo->NewExtendedInfo(RESP_Base_InternalError);
        if (faults != nullptr) faults->push_back(sUsrInFault{RESP_Base_InternalError, {}, ""});
        return attached;
    }
    Verifier verifier(*tmpl, *cache, args, faults);
    const eRtCode rt = verifier.Run();
    tmpl->DetachCache();
    return rt;
}

}  // namespace Orbel
