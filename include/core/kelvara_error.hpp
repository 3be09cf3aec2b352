#pragma once
/// The application's own error value: the area that raised it (`Domain`), a numbered `Code`
/// and optional user info. A lower error is wrapped, never replaced, and the throwing file,
/// function and line travel with it.
///
///   try {
///     loadProject(path);
///   } catch (...) {
///     throw core::KelvaraError::wrap(std::current_exception(), KelvaraError::Domain::edit,
///                                    KelvaraError::Code::couldNotLoadProject);
///   }
///
/// or, shorter, with `rethrow`:
///
///   auto project = core::rethrow(Domain::edit, Code::couldNotLoadProject,
///                                [&] { return loadProject(path); });
///
/// Asking whether some error carries a code (the application's "pattern match"):
///
///   catch (const std::exception& e) {
///     if (core::isKelvaraError(e, KelvaraError::Code::cancelled)) return;
///   }

#include <boost/asio/awaitable.hpp>
#include <boost/json/value.hpp>
#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <source_location>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <variant>

namespace core {

/// A lower error kept inside a `KelvaraError`: the exception itself (rethrow it to get the
/// original object back) and what it said when it was wrapped.
struct WrappedError {
  std::exception_ptr error;
  std::string description;  ///< its `what()`, or "unknown error" for a non-std exception
  std::string typeName;     ///< its dynamic type, demangled ("platform::Error")
};

/// One user-info value: text, a signed or an unsigned integer, a wrapped error, or JSON
/// (booleans and anything structured).
class UserInfoValue {
 public:
  using Storage =
      std::variant<std::string, std::int64_t, std::uint64_t, WrappedError, boost::json::value>;

  UserInfoValue(std::string text) : storage_(std::move(text)) {}
  UserInfoValue(std::string_view text) : storage_(std::string(text)) {}
  UserInfoValue(const char* text) : storage_(std::string(text)) {}
  UserInfoValue(bool flag) : storage_(boost::json::value(flag)) {}
  template <std::signed_integral I>
  UserInfoValue(I number) : storage_(static_cast<std::int64_t>(number)) {}
  template <std::unsigned_integral U>
  requires(!std::same_as<U, bool>) UserInfoValue(U number)
      : storage_(static_cast<std::uint64_t>(number)) {}
  UserInfoValue(WrappedError error) : storage_(std::move(error)) {}
  UserInfoValue(boost::json::value json) : storage_(std::move(json)) {}

  /// The value if it holds a T (one of the `Storage` alternatives), else null.
  template <class T>
  const T* get() const noexcept {
    return std::get_if<T>(&storage_);
  }
  const Storage& storage() const noexcept { return storage_; }
  /// How the value reads in a description: text as is, numbers in decimal, a wrapped error
  /// by its description, JSON compact.
  std::string description() const;

 private:
  Storage storage_;
};

/// User info keyed by text, kept sorted by key so that descriptions are stable.
using UserInfo = std::map<std::string, UserInfoValue, std::less<>>;

class KelvaraError : public std::exception {
 public:
  /// The area of the application that raised the error.
  enum class Domain {
    antiChurn,
    app,
    batch,
    camera,
    categoriesService,
    cloudExporter,
    herald,
    create,
    edit,
    engine,
    export_,
    fontPicker,
    helpers,
    insert,
    instantBackgrounds,
    instantShadows,
    mediaPicker,
    model,
    networkService,
    notification,
    onboarding,
    preferences,
    remoteImageService,
    rendering,
    repositories,
    routing,
    segmentation,
    suggestedPrompts,
    sync,
    teams,
    toolPage,
    userConcept,
    userDetails,
    upscale,
    text2image,
    postmaker,
    projectLoader,
    commenting,
    login,
    yourContent,
  };

  /// What went wrong. The numbers are fixed identifiers (they reach logs and analytics):
  /// never renumber a case. Each group starts at its base number with the case that names
  /// the group. `export` and `concept` are C++ keywords, so those cases end in `_`; their
  /// names (`debugCode`) are the plain words.
  enum class Code : int {
    fileManager = 0,
    couldNotReadContentsOfDirectory = 1,
    couldNotCreateDirectory = 2,
    couldNotWriteFile = 3,
    couldNotCopyFile = 4,
    fileDoesNotExist = 5,
    couldNotRemoveFile = 6,
    couldNotResolveCanonicalFilePath = 7,
    couldNotLoadDataRepresentation = 8,
    couldNotReadFile = 9,
    couldNotLoadAllFonts = 10,
    couldNotMoveFile = 11,
    couldNotFetchPHAsset = 12,
    download = 100,
    httpDownload = 101,
    firebaseDownload = 102,
    upload = 200,
    firebaseUpload = 201,
    templateNotUploaded = 202,
    firebaseDelete = 203,
    httpUpload = 204,
    pathNotFound = 205,
    timeout = 206,
    authentication = 300,
    query = 400,
    fetchInProgress = 401,
    paginationExhausted = 402,
    invalidURL = 403,
    couldNotFetch = 404,
    couldNotFetchNextPage = 405,
    missingHeaders = 406,
    image = 500,
    couldNotCreateCIImageFromData = 501,
    noCGImageSourceCreateWithURL = 502,
    noCGImageSourceCreateWithData = 503,
    noCGImageSourceCreateThumbnailAtIndex = 504,
    couldNotLoadItemProviderURL = 505,
    couldNotInflateCIImageFromData = 506,
    imageCacheCouldNotFetchImage = 507,
    jpgCompressionFailed = 508,
    pngCompressionFailed = 509,
    couldNotDecodeImage = 510,
    couldNotRenderBitmap = 511,
    couldNotConvertToCGImage = 512,
    couldNotConvertImage = 513,
    imagePickerRequestFailed = 514,
    couldNotDownloadImage = 515,
    couldNotCreateCVPixelBuffer = 516,
    video = 600,
    noBackCamera = 601,
    noFrontCamera = 602,
    cannotAddFrontInput = 603,
    cannotAddBackInput = 604,
    cannotAddPhotoOutput = 605,
    cannotAddVideoOutput = 606,
    json = 700,
    couldNotDecode = 701,
    couldNotDecodeLocalUserProperty = 702,
    couldNotDecodeRemoteUserProperty = 703,
    coreML = 800,
    couldNotFormatInput = 801,
    couldNotFormatOutput = 802,
    noRefinerOutput = 803,
    export_ = 900,
    couldNotExportMultipleImages = 901,
    font = 1000,
    notAGoogleFont = 1001,
    noFamilyFound = 1002,
    noFilesFoundForVariant = 1003,
    couldNotRegisterFont = 1004,
    couldNotUnregisterFont = 1005,
    concept_ = 1100,
    conceptNotInflated = 1101,
    conceptMissingTextRun = 1102,
    project = 1200,
    couldNotResizeProject = 1201,
    couldNotAddReplaceableConcept = 1202,
    couldNotExportImage = 1203,
    couldNotBuildProject = 1204,
    data = 1300,
    couldNotDecompress = 1301,
    couldNotCompress = 1302,
    network = 1400,
    networkRequestNotSuccessful = 1401,
    unimplemented = 10000,
    programmerError = 15000,
    invalidIndexPath = 15001,
    noEditingTemplateId = 15002,
    templateNotFound = 15003,
    cancelled = 20000,
    preconditionFailure = 30000,
    wrongOnboardingConfiguration = 30001,
    wrongAntiChurnConfiguration = 30002,
    configIsEmpty = 30003,
    duplicateOnboardingSteps = 30004,
    couldNotFetchExperimentValuesInTime = 30005,
    couldNotSetNotificationPermissions = 30006,
    couldNotSetPersonaOnMarketingPlatform = 30007,
    couldNotFindConcept = 30008,
    couldNotFetchConcept = 30009,
    couldNotAssembleTermsAndConditions = 30010,
    couldNotSetTermsAndConditions = 30011,
    couldNotSetNotifications = 30012,
    couldNotJoinTeam = 30013,
    couldNotJoinTeamLinkInvalid = 30014,
    couldNotJoinTeamWrongEmailAddress = 30015,
    couldNotFetchTeam = 30016,
    couldNotSignIn = 30017,
    couldNotSignOut = 30018,
    // 30019 is the payload decoding failure and 30020 the deep-link one; both numbers are
    // already reported, so keep them even if the cases are ever reordered.
    couldNotDecodeNotificationMessage = 30019,
    couldNotDecodeDeeplink = 30020,
    missingInvitationID = 30021,
    couldNotTrackDeletion = 30022,
    unsupportedFileExtension = 30023,
    couldNotGetCGImageFromUIImage = 30024,
    couldNotSetTeamSwitchingAnalytics = 30025,
    couldNotDecodeExperimentPayload = 30026,
    couldNotRenderImage = 30027,
    couldNotCreateCGImage = 30028,
    couldNotCopyTemplate = 30029,
    couldNotMoveTemplate = 30030,
    exportRequestHasNoProject = 30031,
    cantSaveSourceWithGuidingImage = 30032,
    nonceNotFound = 30033,
    facebookTokenNotFound = 30034,
    userIsNotMemberOfGivenTeamId = 30035,
    couldNotOpenEditor = 40000,
    couldNotLoadProject = 40001,
    couldNotFetchSharedTemplate = 40002,
    couldNotOpenSharedTemplate = 40003,
    couldNotGenerateShadow = 40004,
    couldNotGenerateAIBackground = 40005,
    couldNotConvertDesignIntoTemplate = 40006,
    couldNotLoadConcepts = 40007,
    couldNotFetchCategories = 40008,
    environmentShouldBeSet = 40009,
    couldNotCreateGuideWithImage = 40010,
    couldNotFetchShortPrompts = 40011,
    couldNotInflateGuide = 40012,
    couldNotCallTeamsWhileLoggedOut = 40013,
    couldNotGenerateAIImages = 40014,
    couldNotGenerateAIImagesWithChangedPrompt = 40015,
  };

  KelvaraError(Domain domain, Code code, std::optional<UserInfo> userInfo = std::nullopt);

  /// A `KelvaraError` that keeps `error` under "wrappedError" beside the given user info,
  /// with the call site under "throwingFile", "throwingFunction" and "throwingLine".
  ///
  ///   catch (...) { throw KelvaraError::wrap(std::current_exception(), d, c); }
  static KelvaraError wrap(std::exception_ptr error, Domain domain, Code code,
                           std::optional<UserInfo> userInfo = std::nullopt,
                           std::source_location site = std::source_location::current());

  /// The same for an exception object. Inside the handler that caught it the original
  /// object is kept (not a copy sliced to the static type); elsewhere a copy of it is.
  template <class E>
  requires std::derived_from<E, std::exception>
  static KelvaraError wrap(const E& error, Domain domain, Code code,
                           std::optional<UserInfo> userInfo = std::nullopt,
                           std::source_location site = std::source_location::current()) {
    auto captured = currentExceptionIfSame(error);
    if (!captured) captured = std::make_exception_ptr(error);
    return wrap(std::move(captured), domain, code, std::move(userInfo), site);
  }

  Domain domain() const noexcept { return domain_; }
  Code code() const noexcept { return code_; }
  const std::optional<UserInfo>& userInfo() const noexcept { return userInfo_; }

  /// The error kept by `wrap`, or null.
  const WrappedError* wrappedError() const noexcept;
  /// "<file name without extension>.<function>" of the throwing site, when known.
  std::optional<std::string> wrappedSource() const;
  std::optional<std::uint64_t> wrappedLine() const;
  /// The user info, one "key: value" line per entry, in key order.
  std::string additionalUserInfo() const;

  /// "Domain: edit - Code: 40001: couldNotLoadProject - Source: … - Line: … - Wrapped Error: …"
  /// (the last three parts only when known). `what()` returns the same text.
  const std::string& description() const noexcept { return description_; }
  /// "Domain=edit Code=40001"
  std::string shortDescription() const;
  /// "KelvaraError\nDomain: edit\nCode: 40001\nUserInfo: \n" and `additionalUserInfo()`.
  std::string debugDescription() const;

  const char* what() const noexcept override { return description_.c_str(); }

 private:
  static std::exception_ptr currentExceptionIfSame(const std::exception& error);

  Domain domain_;
  Code code_;
  std::optional<UserInfo> userInfo_;
  std::string description_;
};

/// The case name ("remoteImageService").
std::string_view caseName(KelvaraError::Domain domain);
/// The application's reverse-DNS error domain for `domain` ("com.kelvara.app.herald").
std::string debugDomain(KelvaraError::Domain domain);
/// The case name ("unsupportedFileExtension").
std::string_view debugCode(KelvaraError::Code code);
/// The code's fixed number (30023 for `unsupportedFileExtension`).
constexpr int numericCode(KelvaraError::Code code) {
  return static_cast<int>(code);
}
/// The code with that number, or none when no code has it (1305, -1).
std::optional<KelvaraError::Code> codeFromRawValue(int rawValue);

/// The prefix of every `debugDomain`.
inline constexpr std::string_view errorDomainPrefix = "com.kelvara.app.";

/// True when `error` is a `KelvaraError` carrying `code` (wrapped errors are not searched:
/// the code belongs to the outermost error).
bool isKelvaraError(const std::exception& error, KelvaraError::Code code) noexcept;
bool isKelvaraError(const std::exception_ptr& error, KelvaraError::Code code) noexcept;

/// Runs `body` and returns its value; anything it throws leaves as
/// `KelvaraError::wrap(thrown, domain, code, userInfo, call site)`.
///
///   auto data = core::rethrow(Domain::networkService, Code::couldNotFetch, [&] {
///     return session.dataSync(request).data;
///   });
template <class F>
requires std::invocable<F&> std::invoke_result_t<F&> rethrow(
    KelvaraError::Domain domain, KelvaraError::Code code, std::optional<UserInfo> userInfo,
    F&& body, std::source_location site = std::source_location::current()) {
  try {
    return std::invoke(body);
  } catch (...) {
    throw KelvaraError::wrap(std::current_exception(), domain, code, std::move(userInfo), site);
  }
}

template <class F>
requires std::invocable<F&> std::invoke_result_t<F&> rethrow(
    KelvaraError::Domain domain, KelvaraError::Code code, F&& body,
    std::source_location site = std::source_location::current()) {
  return rethrow(domain, code, std::nullopt, std::forward<F>(body), site);
}

/// The asynchronous form: awaits `body` and wraps what it throws.
///
///   auto result = co_await core::rethrow(Domain::herald, Code::couldNotFetch,
///                                        session.data(request));
template <class T>
boost::asio::awaitable<T> rethrow(KelvaraError::Domain domain, KelvaraError::Code code,
                                  std::optional<UserInfo> userInfo, boost::asio::awaitable<T> body,
                                  std::source_location site = std::source_location::current()) {
  try {
    co_return co_await std::move(body);
  } catch (...) {
    throw KelvaraError::wrap(std::current_exception(), domain, code, std::move(userInfo), site);
  }
}

template <class T>
boost::asio::awaitable<T> rethrow(KelvaraError::Domain domain, KelvaraError::Code code,
                                  boost::asio::awaitable<T> body,
                                  std::source_location site = std::source_location::current()) {
  return rethrow(domain, code, std::nullopt, std::move(body), site);
}

}  // namespace core
