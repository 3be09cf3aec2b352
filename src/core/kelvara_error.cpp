#include "core/kelvara_error.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/error.hpp"
#include "platform/json.hpp"

namespace core {
namespace {

using Domain = KelvaraError::Domain;
using Code = KelvaraError::Code;

// In the order of the enumeration, so a domain's value indexes its name.
constexpr std::array<std::string_view, 40> domainNames = {
    "antiChurn",
    "app",
    "batch",
    "camera",
    "categoriesService",
    "cloudExporter",
    "herald",
    "create",
    "edit",
    "engine",
    "export",
    "fontPicker",
    "helpers",
    "insert",
    "instantBackgrounds",
    "instantShadows",
    "mediaPicker",
    "model",
    "networkService",
    "notification",
    "onboarding",
    "preferences",
    "remoteImageService",
    "rendering",
    "repositories",
    "routing",
    "segmentation",
    "suggestedPrompts",
    "sync",
    "teams",
    "toolPage",
    "userConcept",
    "userDetails",
    "upscale",
    "text2image",
    "postmaker",
    "projectLoader",
    "commenting",
    "login",
    "yourContent",
};

struct CodeName {
  Code code;
  std::string_view name;
};

// Sorted by number; looked up by binary search.
constexpr std::array<CodeName, 142> codeNames = {{
    {Code::fileManager, "fileManager"},
    {Code::couldNotReadContentsOfDirectory, "couldNotReadContentsOfDirectory"},
    {Code::couldNotCreateDirectory, "couldNotCreateDirectory"},
    {Code::couldNotWriteFile, "couldNotWriteFile"},
    {Code::couldNotCopyFile, "couldNotCopyFile"},
    {Code::fileDoesNotExist, "fileDoesNotExist"},
    {Code::couldNotRemoveFile, "couldNotRemoveFile"},
    {Code::couldNotResolveCanonicalFilePath, "couldNotResolveCanonicalFilePath"},
    {Code::couldNotLoadDataRepresentation, "couldNotLoadDataRepresentation"},
    {Code::couldNotReadFile, "couldNotReadFile"},
    {Code::couldNotLoadAllFonts, "couldNotLoadAllFonts"},
    {Code::couldNotMoveFile, "couldNotMoveFile"},
    {Code::couldNotFetchPHAsset, "couldNotFetchPHAsset"},
    {Code::download, "download"},
    {Code::httpDownload, "httpDownload"},
    {Code::firebaseDownload, "firebaseDownload"},
    {Code::upload, "upload"},
    {Code::firebaseUpload, "firebaseUpload"},
    {Code::templateNotUploaded, "templateNotUploaded"},
    {Code::firebaseDelete, "firebaseDelete"},
    {Code::httpUpload, "httpUpload"},
    {Code::pathNotFound, "pathNotFound"},
    {Code::timeout, "timeout"},
    {Code::authentication, "authentication"},
    {Code::query, "query"},
    {Code::fetchInProgress, "fetchInProgress"},
    {Code::paginationExhausted, "paginationExhausted"},
    {Code::invalidURL, "invalidURL"},
    {Code::couldNotFetch, "couldNotFetch"},
    {Code::couldNotFetchNextPage, "couldNotFetchNextPage"},
    {Code::missingHeaders, "missingHeaders"},
    {Code::image, "image"},
    {Code::couldNotCreateCIImageFromData, "couldNotCreateCIImageFromData"},
    {Code::noCGImageSourceCreateWithURL, "noCGImageSourceCreateWithURL"},
    {Code::noCGImageSourceCreateWithData, "noCGImageSourceCreateWithData"},
    {Code::noCGImageSourceCreateThumbnailAtIndex, "noCGImageSourceCreateThumbnailAtIndex"},
    {Code::couldNotLoadItemProviderURL, "couldNotLoadItemProviderURL"},
    {Code::couldNotInflateCIImageFromData, "couldNotInflateCIImageFromData"},
    {Code::imageCacheCouldNotFetchImage, "imageCacheCouldNotFetchImage"},
    {Code::jpgCompressionFailed, "jpgCompressionFailed"},
    {Code::pngCompressionFailed, "pngCompressionFailed"},
    {Code::couldNotDecodeImage, "couldNotDecodeImage"},
    {Code::couldNotRenderBitmap, "couldNotRenderBitmap"},
    {Code::couldNotConvertToCGImage, "couldNotConvertToCGImage"},
    {Code::couldNotConvertImage, "couldNotConvertImage"},
    {Code::imagePickerRequestFailed, "imagePickerRequestFailed"},
    {Code::couldNotDownloadImage, "couldNotDownloadImage"},
    {Code::couldNotCreateCVPixelBuffer, "couldNotCreateCVPixelBuffer"},
    {Code::video, "video"},
    {Code::noBackCamera, "noBackCamera"},
    {Code::noFrontCamera, "noFrontCamera"},
    {Code::cannotAddFrontInput, "cannotAddFrontInput"},
    {Code::cannotAddBackInput, "cannotAddBackInput"},
    {Code::cannotAddPhotoOutput, "cannotAddPhotoOutput"},
    {Code::cannotAddVideoOutput, "cannotAddVideoOutput"},
    {Code::json, "json"},
    {Code::couldNotDecode, "couldNotDecode"},
    {Code::couldNotDecodeLocalUserProperty, "couldNotDecodeLocalUserProperty"},
    {Code::couldNotDecodeRemoteUserProperty, "couldNotDecodeRemoteUserProperty"},
    {Code::coreML, "coreML"},
    {Code::couldNotFormatInput, "couldNotFormatInput"},
    {Code::couldNotFormatOutput, "couldNotFormatOutput"},
    {Code::noRefinerOutput, "noRefinerOutput"},
    {Code::export_, "export"},
    {Code::couldNotExportMultipleImages, "couldNotExportMultipleImages"},
    {Code::font, "font"},
    {Code::notAGoogleFont, "notAGoogleFont"},
    {Code::noFamilyFound, "noFamilyFound"},
    {Code::noFilesFoundForVariant, "noFilesFoundForVariant"},
    {Code::couldNotRegisterFont, "couldNotRegisterFont"},
    {Code::couldNotUnregisterFont, "couldNotUnregisterFont"},
    {Code::concept_, "concept"},
    {Code::conceptNotInflated, "conceptNotInflated"},
    {Code::conceptMissingTextRun, "conceptMissingTextRun"},
    {Code::project, "project"},
    {Code::couldNotResizeProject, "couldNotResizeProject"},
    {Code::couldNotAddReplaceableConcept, "couldNotAddReplaceableConcept"},
    {Code::couldNotExportImage, "couldNotExportImage"},
    {Code::couldNotBuildProject, "couldNotBuildProject"},
    {Code::data, "data"},
    {Code::couldNotDecompress, "couldNotDecompress"},
    {Code::couldNotCompress, "couldNotCompress"},
    {Code::network, "network"},
    {Code::networkRequestNotSuccessful, "networkRequestNotSuccessful"},
    {Code::unimplemented, "unimplemented"},
    {Code::programmerError, "programmerError"},
    {Code::invalidIndexPath, "invalidIndexPath"},
    {Code::noEditingTemplateId, "noEditingTemplateId"},
    {Code::templateNotFound, "templateNotFound"},
    {Code::cancelled, "cancelled"},
    {Code::preconditionFailure, "preconditionFailure"},
    {Code::wrongOnboardingConfiguration, "wrongOnboardingConfiguration"},
    {Code::wrongAntiChurnConfiguration, "wrongAntiChurnConfiguration"},
    {Code::configIsEmpty, "configIsEmpty"},
    {Code::duplicateOnboardingSteps, "duplicateOnboardingSteps"},
    {Code::couldNotFetchExperimentValuesInTime, "couldNotFetchExperimentValuesInTime"},
    {Code::couldNotSetNotificationPermissions, "couldNotSetNotificationPermissions"},
    {Code::couldNotSetPersonaOnMarketingPlatform, "couldNotSetPersonaOnMarketingPlatform"},
    {Code::couldNotFindConcept, "couldNotFindConcept"},
    {Code::couldNotFetchConcept, "couldNotFetchConcept"},
    {Code::couldNotAssembleTermsAndConditions, "couldNotAssembleTermsAndConditions"},
    {Code::couldNotSetTermsAndConditions, "couldNotSetTermsAndConditions"},
    {Code::couldNotSetNotifications, "couldNotSetNotifications"},
    {Code::couldNotJoinTeam, "couldNotJoinTeam"},
    {Code::couldNotJoinTeamLinkInvalid, "couldNotJoinTeamLinkInvalid"},
    {Code::couldNotJoinTeamWrongEmailAddress, "couldNotJoinTeamWrongEmailAddress"},
    {Code::couldNotFetchTeam, "couldNotFetchTeam"},
    {Code::couldNotSignIn, "couldNotSignIn"},
    {Code::couldNotSignOut, "couldNotSignOut"},
    {Code::couldNotDecodeNotificationMessage, "couldNotDecodeNotificationMessage"},
    {Code::couldNotDecodeDeeplink, "couldNotDecodeDeeplink"},
    {Code::missingInvitationID, "missingInvitationID"},
    {Code::couldNotTrackDeletion, "couldNotTrackDeletion"},
    {Code::unsupportedFileExtension, "unsupportedFileExtension"},
    {Code::couldNotGetCGImageFromUIImage, "couldNotGetCGImageFromUIImage"},
    {Code::couldNotSetTeamSwitchingAnalytics, "couldNotSetTeamSwitchingAnalytics"},
    {Code::couldNotDecodeExperimentPayload, "couldNotDecodeExperimentPayload"},
    {Code::couldNotRenderImage, "couldNotRenderImage"},
    {Code::couldNotCreateCGImage, "couldNotCreateCGImage"},
    {Code::couldNotCopyTemplate, "couldNotCopyTemplate"},
    {Code::couldNotMoveTemplate, "couldNotMoveTemplate"},
    {Code::exportRequestHasNoProject, "exportRequestHasNoProject"},
    {Code::cantSaveSourceWithGuidingImage, "cantSaveSourceWithGuidingImage"},
    {Code::nonceNotFound, "nonceNotFound"},
    {Code::facebookTokenNotFound, "facebookTokenNotFound"},
    {Code::userIsNotMemberOfGivenTeamId, "userIsNotMemberOfGivenTeamId"},
    {Code::couldNotOpenEditor, "couldNotOpenEditor"},
    {Code::couldNotLoadProject, "couldNotLoadProject"},
    {Code::couldNotFetchSharedTemplate, "couldNotFetchSharedTemplate"},
    {Code::couldNotOpenSharedTemplate, "couldNotOpenSharedTemplate"},
    {Code::couldNotGenerateShadow, "couldNotGenerateShadow"},
    {Code::couldNotGenerateAIBackground, "couldNotGenerateAIBackground"},
    {Code::couldNotConvertDesignIntoTemplate, "couldNotConvertDesignIntoTemplate"},
    {Code::couldNotLoadConcepts, "couldNotLoadConcepts"},
    {Code::couldNotFetchCategories, "couldNotFetchCategories"},
    {Code::environmentShouldBeSet, "environmentShouldBeSet"},
    {Code::couldNotCreateGuideWithImage, "couldNotCreateGuideWithImage"},
    {Code::couldNotFetchShortPrompts, "couldNotFetchShortPrompts"},
    {Code::couldNotInflateGuide, "couldNotInflateGuide"},
    {Code::couldNotCallTeamsWhileLoggedOut, "couldNotCallTeamsWhileLoggedOut"},
    {Code::couldNotGenerateAIImages, "couldNotGenerateAIImages"},
    {Code::couldNotGenerateAIImagesWithChangedPrompt, "couldNotGenerateAIImagesWithChangedPrompt"},
}};

static_assert(std::is_sorted(codeNames.begin(), codeNames.end(),
                             [](const CodeName& a, const CodeName& b) {
                               return numericCode(a.code) < numericCode(b.code);
                             }));

const CodeName* findCode(int rawValue) {
  auto it =
      std::lower_bound(codeNames.begin(), codeNames.end(), rawValue,
                       [](const CodeName& entry, int n) { return numericCode(entry.code) < n; });
  return it != codeNames.end() && numericCode(it->code) == rawValue ? &*it : nullptr;
}

WrappedError describe(std::exception_ptr error) {
  WrappedError wrapped{error, "unknown error", "unknown"};
  if (!error) {
    wrapped.description = "no error";
    return wrapped;
  }
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    wrapped.description = e.what();
    wrapped.typeName = platform::typeName(e);
  } catch (...) {
  }
  return wrapped;
}

template <class T>
const T* lookup(const std::optional<UserInfo>& info, std::string_view key) {
  if (!info) return nullptr;
  auto it = info->find(key);
  return it == info->end() ? nullptr : it->second.get<T>();
}

}  // namespace

std::string UserInfoValue::description() const {
  struct Visitor {
    std::string operator()(const std::string& s) const { return s; }
    std::string operator()(std::int64_t n) const { return std::to_string(n); }
    std::string operator()(std::uint64_t n) const { return std::to_string(n); }
    std::string operator()(const WrappedError& e) const { return e.description; }
    std::string operator()(const boost::json::value& v) const { return platform::toJSON(v); }
  };
  return std::visit(Visitor{}, storage_);
}

KelvaraError::KelvaraError(Domain domain, Code code, std::optional<UserInfo> userInfo)
    : domain_(domain), code_(code), userInfo_(std::move(userInfo)) {
  description_ = "Domain: ";
  description_ += caseName(domain_);
  description_ += " - Code: " + std::to_string(numericCode(code_)) + ": ";
  description_ += debugCode(code_);
  if (auto source = wrappedSource()) description_ += " - Source: " + *source;
  if (auto line = wrappedLine()) description_ += " - Line: " + std::to_string(*line);
  if (const auto* wrapped = wrappedError()) {
    description_ += " - Wrapped Error: " + wrapped->description;
  }
}

KelvaraError KelvaraError::wrap(std::exception_ptr error, Domain domain, Code code,
                                std::optional<UserInfo> userInfo, std::source_location site) {
  UserInfo info = userInfo ? std::move(*userInfo) : UserInfo{};
  info.insert_or_assign("wrappedError", describe(std::move(error)));
  info.insert_or_assign("throwingFile", std::string(site.file_name()));
  info.insert_or_assign("throwingFunction", std::string(site.function_name()));
  info.insert_or_assign("throwingLine", static_cast<std::uint64_t>(site.line()));
  return KelvaraError(domain, code, std::move(info));
}

std::exception_ptr KelvaraError::currentExceptionIfSame(const std::exception& error) {
  auto current = std::current_exception();
  if (!current) return nullptr;
  try {
    std::rethrow_exception(current);
  } catch (const std::exception& caught) {
    if (&caught == &error) return current;
  } catch (...) {
  }
  return nullptr;
}

const WrappedError* KelvaraError::wrappedError() const noexcept {
  return lookup<WrappedError>(userInfo_, "wrappedError");
}

std::optional<std::string> KelvaraError::wrappedSource() const {
  const auto* file = lookup<std::string>(userInfo_, "throwingFile");
  if (file == nullptr) return std::nullopt;
  std::string_view name = *file;
  if (auto slash = name.find_last_of('/'); slash != std::string_view::npos) {
    name.remove_prefix(slash + 1);
  }
  name = name.substr(0, name.find('.'));
  if (name.empty()) return std::nullopt;
  std::string source(name);
  source += '.';
  if (const auto* function = lookup<std::string>(userInfo_, "throwingFunction")) {
    source += *function;
  }
  return source;
}

std::optional<std::uint64_t> KelvaraError::wrappedLine() const {
  const auto* line = lookup<std::uint64_t>(userInfo_, "throwingLine");
  return line ? std::optional(*line) : std::nullopt;
}

std::string KelvaraError::additionalUserInfo() const {
  std::string out;
  if (!userInfo_) return out;
  for (const auto& [key, value] : *userInfo_) {
    if (!out.empty()) out += '\n';
    out += key + ": " + value.description();
  }
  return out;
}

std::string KelvaraError::shortDescription() const {
  return "Domain=" + std::string(caseName(domain_)) + " Code=" + std::to_string(numericCode(code_));
}

std::string KelvaraError::debugDescription() const {
  return "KelvaraError\nDomain: " + std::string(caseName(domain_)) +
         "\nCode: " + std::to_string(numericCode(code_)) + "\nUserInfo: \n" + additionalUserInfo();
}

std::string_view caseName(Domain domain) {
  auto index = static_cast<std::size_t>(domain);
  return index < domainNames.size() ? domainNames[index] : std::string_view("unknown");
}

std::string debugDomain(Domain domain) {
  return std::string(errorDomainPrefix) + std::string(caseName(domain));
}

std::string_view debugCode(Code code) {
  const auto* entry = findCode(numericCode(code));
  return entry ? entry->name : std::string_view("unknown");
}

std::optional<Code> codeFromRawValue(int rawValue) {
  const auto* entry = findCode(rawValue);
  return entry ? std::optional(entry->code) : std::nullopt;
}

bool isKelvaraError(const std::exception& error, Code code) noexcept {
  const auto* kelvara = dynamic_cast<const KelvaraError*>(&error);
  return kelvara != nullptr && kelvara->code() == code;
}

bool isKelvaraError(const std::exception_ptr& error, Code code) noexcept {
  if (!error) return false;
  try {
    std::rethrow_exception(error);
  } catch (const KelvaraError& e) {
    return e.code() == code;
  } catch (...) {
  }
  return false;
}

}  // namespace core
