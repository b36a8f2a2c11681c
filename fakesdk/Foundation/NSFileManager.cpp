// NSFileManager (one shared instance) and NSTemporaryDirectory(). Failures come back as NSErrors
// in NSCocoaErrorDomain with Apple's codes and the POSIX error underneath.
#include "CoreFoundation/cfinternal.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
extern id const NSCocoaErrorDomain;
extern id const NSPOSIXErrorDomain;
extern id const NSFilePathErrorKey;
extern id const NSUnderlyingErrorKey;
extern id const NSLocalizedDescriptionKey;
}

namespace {

using fakecf::autoString;
using fakecf::utf8Of;

enum : long {
    NSFileNoSuchFileError = 4,
    NSFileWriteUnknownError = 512,
    NSFileWriteNoPermissionError = 513,
    NSFileWriteFileExistsError = 516,
};

std::string temporaryDirectory()
{
    const char *env = std::getenv("TMPDIR");
    std::string dir = env && *env ? env : "/tmp/";
    if (dir.back() != '/')
        dir.push_back('/');
    return dir;
}

// Stores an autoreleased NSError through out (if any): Apple's code, the path, the POSIX cause.
void setError(id *out, long code, int posix, const std::string &path, const std::string &what)
{
    if (!out)
        return;
    id underlying = fakecf::newError(NSPOSIXErrorDomain, posix, nil);
    std::string name = fakecf::utf8Of(fakeobjc::msg<id>(autoString(path), "lastPathComponent"));
    id info = fakecf::newMutableDictionary();
    fakecf::dictionarySet(info, NSFilePathErrorKey, autoString(path), true);
    fakecf::dictionarySet(info, NSUnderlyingErrorKey, underlying, true);
    fakecf::dictionarySet(info, NSLocalizedDescriptionKey,
                          autoString("\u201C" + name + "\u201D " + what), true);
    *out = objc_autorelease(fakecf::newError(NSCocoaErrorDomain, code, info));
    objc_release(info);
    objc_release(underlying);
}

long codeFor(int posix)
{
    switch (posix) {
    case ENOENT:
    case ENOTDIR:
        return NSFileNoSuchFileError;
    case EACCES:
    case EPERM:
    case EROFS:
        return NSFileWriteNoPermissionError;
    case EEXIST:
        return NSFileWriteFileExistsError;
    default:
        return NSFileWriteUnknownError;
    }
}

id defaultManager(id self, SEL)
{
    static id shared = [self] {
        id obj = class_createInstance(reinterpret_cast<Class>(self), 0);
        fakeobjc::makeImmortal(obj);
        return obj;
    }();
    return shared;
}

bool fileExistsAtPath(id, SEL, id path)
{
    struct stat info {};
    return path && ::stat(utf8Of(path).c_str(), &info) == 0;
}

bool fileExistsAtPathIsDirectory(id, SEL, id path, bool *isDirectory)
{
    struct stat info {};
    if (!path || ::stat(utf8Of(path).c_str(), &info) != 0)
        return false;
    if (isDirectory)
        *isDirectory = S_ISDIR(info.st_mode);
    return true;
}

int removeEntry(const char *path, const struct stat *, int, struct FTW *)
{
    return ::remove(path) == 0 ? 0 : errno;
}

// Directories are removed with their contents, as -removeItemAtPath:error: does.
bool removeItemAtPath(id, SEL, id path, id *error)
{
    std::string target = utf8Of(path);
    struct stat info {};
    if (::lstat(target.c_str(), &info) != 0) {
        setError(error, codeFor(errno), errno, target, "couldn\u2019t be removed.");
        return false;
    }
    int failed = S_ISDIR(info.st_mode) ? ::nftw(target.c_str(), removeEntry, 32, FTW_DEPTH | FTW_PHYS)
                                       : (::unlink(target.c_str()) == 0 ? 0 : errno);
    if (failed) {
        int posix = failed > 0 ? failed : errno;
        setError(error, codeFor(posix), posix, target, "couldn\u2019t be removed.");
        return false;
    }
    return true;
}

bool removeItemAtURL(id self, SEL cmd, id url, id *error)
{
    return removeItemAtPath(self, cmd, fakeobjc::msg<id>(url, "path"), error);
}

// With intermediates, existing directories along the way (and at the end) are fine.
bool createDirectory(id, SEL, id path, bool intermediates, id, id *error)
{
    std::string target = utf8Of(path);
    auto make = [&](const std::string &dir, bool mayExist) {
        if (::mkdir(dir.c_str(), 0755) == 0)
            return true;
        int posix = errno;
        struct stat info {};
        if (posix == EEXIST && mayExist && ::stat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            return true;
        setError(error, codeFor(posix), posix, target, "couldn\u2019t be created.");
        return false;
    };
    if (intermediates)
        for (size_t slash = target.find('/', 1); slash != std::string::npos; slash = target.find('/', slash + 1))
            if (!make(target.substr(0, slash), true))
                return false;
    return make(target, intermediates);
}

id temporaryDirectoryURL(id, SEL)
{
    return fakeobjc::msg<id>(fakeobjc::cls("NSURL"), "fileURLWithPath:isDirectory:", autoString(temporaryDirectory()),
                             true);
}

__attribute__((constructor(120))) void declareNSFileManager()
{
    fakeobjc::ClassDef("NSFileManager", "NSObject")
        .classMethod("defaultManager", defaultManager)
        .method("fileExistsAtPath:", fileExistsAtPath)
        .method("fileExistsAtPath:isDirectory:", fileExistsAtPathIsDirectory)
        .method("removeItemAtPath:error:", removeItemAtPath)
        .method("removeItemAtURL:error:", removeItemAtURL)
        .method("createDirectoryAtPath:withIntermediateDirectories:attributes:error:", createDirectory)
        .method("temporaryDirectory", temporaryDirectoryURL)
        .registerClass();
}

} // namespace

extern "C" id NSTemporaryDirectory(void)
{
    return autoString(temporaryDirectory());
}
