#include "SignatureRecords.h"

#include "SLB3Info.h"

namespace {

using SLB3::BaseInfo;
using SLB3::Info;

// Kinds of types, as the binder counts them.
constexpr int kOtherType = 0;
constexpr int kNoType = 1;
constexpr int kPlainType = 2;
constexpr int kObjectReference = 3;
constexpr int kFunction = 4;

const Info<bool> boolInfo(kOtherType, "SLB3::InfoCompilerName<bool>::Name");
const Info<const wxString &> textInfo(kOtherType, "SLB3::InfoCompilerName<class wxString const &>::Name");
const Info<void> voidInfo(kNoType, "void");
const Info<int> intInfo(kPlainType, "int");
const Info<const char *> narrowTextInfo(kPlainType, "const char *");
const Info<VtaCore::CDom &> domInfo(kObjectReference, "SLB.Dom &");

const BaseInfo *const noParameters[] = {&voidInfo};
const BaseInfo *const oneBool[] = {&boolInfo};
const BaseInfo *const narrowTexts[] = {&narrowTextInfo, &narrowTextInfo};
const BaseInfo *const domAndTexts[] = {&domInfo, &textInfo, &textInfo};

const Info<IntFromVoid> intFromVoid(kFunction, "SLB3::InfoCompilerName<int (__cdecl*)(void)>::Name", 0, &intInfo,
                                    noParameters);
const Info<BoolFromBool> boolFromBool(kFunction, "SLB3::InfoCompilerName<bool (__cdecl*)(bool)>::Name", 1, &boolInfo,
                                      oneBool);
const Info<BoolFromStr> boolFromStr(kFunction, "SLB3::InfoCompilerName<bool (__cdecl*)(char const *)>::Name", 1,
                                    &boolInfo, narrowTexts);
const Info<BoolFromStrStr> boolFromStrStr(kFunction,
                                          "SLB3::InfoCompilerName<bool (__cdecl*)(char const *,char const *)>::Name", 2,
                                          &boolInfo, narrowTexts);
const Info<BoolFromDomStrStr> boolFromDomStrStr(kFunction,
                                                "SLB3::InfoCompilerName<bool (__cdecl*)(class VtaCore::CDom &,class "
                                                "wxString const &,class wxString const &)>::Name",
                                                3, &boolInfo, domAndTexts);

}  // namespace

const BaseInfo *SignatureRecord(IntFromVoid) {
    return &intFromVoid;
}
const BaseInfo *SignatureRecord(BoolFromBool) {
    return &boolFromBool;
}
const BaseInfo *SignatureRecord(BoolFromStr) {
    return &boolFromStr;
}
const BaseInfo *SignatureRecord(BoolFromStrStr) {
    return &boolFromStrStr;
}
const BaseInfo *SignatureRecord(BoolFromDomStrStr) {
    return &boolFromDomStrStr;
}
