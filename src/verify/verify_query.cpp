#include "verify/verify_query.h"

#include "rebuild/external_sort.h"
#include "rebuild/index_query.h"
#include "rebuild/record_fetch.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/progress.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace {

inline constexpr char kCannotRead[] = "quenby:VERIFYSHADOW::1::could not open %s for read (error=%d)\n";
// Whether `word` is anywhere in `show`. A scan writes each time word at
// the same place in it, `at`: most answers need no search.
bool holds(std::string_view show, const char* word, size_t at)
{
    const std::string_view text(word);
    return (at <= show.size() && show.substr(at, text.size()) == text) || show.find(text) != std::string_view::npos;
}

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};

class QueryWalk {
public:
    QueryWalk(VerifyContext& v, LineSource& index, LineSource& query, const char* queryName)
        : v_(v), index_(index), query_(query), queryName_(queryName),
          progress_("verifyshadow", index.size() + query.size(), v.progressWanted)
    {
        shadowAt_.attach(v.shadow.fd());
        shadowRecords_.map();
    }
    // Copies the records of the index at `indexName` ahead of the walk.
    void follow(const char* indexName) { shadowRecords_.follow(indexName); }
    int run();

private:
    int readQuery()
    {
        int rc = readQueryRecord(query_, queryRoom_, &q_, &queryEof_, &queryLine_);
        if (rc != 0) {
            std::fprintf(stderr, "quenby:VERIFYSHADOW::1::failed reading QBS QueryShadow record, rc=%d\n", rc);
            return rc;
        }
        progress_.tick(++queries_, query_.bytesRead() + index_.bytesRead());
        return checkOrder();
    }
    // A query line out of path order would be reported as missing files.
    int checkOrder() { return queryEof_ ? 0 : order_.next(q_.path, "quenby:VERIFYSHADOW::1::", queryName_); }
    int advanceShadow()
    {
        fetched_ = false;
        int rc = readIndexFile(index_, &indexLine_, &indexEof_);
        if (rc != 0)
            std::fputs("quenby: verifyShadow: failed reading sorted shadow record\n", stderr);
        return rc;
    }
    int fetch(int* readerResult);
    bool unsupportedQueryPath() const
    {
        // The test looks at no more than the first eight bytes.
        char head[16] = {};
        q_.path.copy(head, sizeof head - 1);
        if (isInternalPath(head, InternalPaths::toolOnly))
            return true;
        // One search per byte of the set, not one per byte of the path.
        for (const char* c = UnsupQBSCharList; *c != '\0'; ++c)
            if (q_.path.find(*c) != std::string_view::npos)
                return true;
        return false;
    }
    int shadowTail();
    int queryTail();

    VerifyContext& v_;
    LineSource& index_;
    LineSource& query_;
    const char* queryName_;
    ProgressLine progress_;
    uint64_t queries_ = 0;
    // The shadow records the index points at, read where they stand.
    LineSource shadowAt_{{.access = LineSource::Access::positioned, .blockSize = 8 * 1024}};
    RecordFetch shadowRecords_{shadowAt_, {}};
    QueryOrder order_;
    const char* queryLine_ = "";
    QueryPathRoom queryRoom_;
    queryRecord q_{};
    IndexLine indexLine_;
    unsigned int queryEof_ = 0;
    unsigned int indexEof_ = 0;
    bool fetched_ = false;
};

// The shadow record the current index line points to. -1 when it cannot be
// read; otherwise 0 with the reader's result in *readerResult.
int QueryWalk::fetch(int* readerResult)
{
    bool eof = false;
    int got = shadowRecords_.recordOf(index_.linesRead(), indexLine_.offset, v_.shadowRec, eof);
    if (got == RecordReader::kReadFailed) {
        std::fprintf(stderr, "quenby: verifyShadow: cannot seek to offset %lld of shadow file, err=%d\n",
                     indexLine_.offset, -1);
        return -1;
    }
    v_.shadowAtEnd = false;
    // An index made from this file always points at a record.
    *readerResult = eof ? -1 : got;
    fetched_ = true;
    v_.shadowExamined = false;
    return 0;
}

int QueryWalk::run()
{
    Record& s = v_.shadowRec;
    int rc = 0;
    if ((rc = readQuery()) || (rc = advanceShadow()))
        return rc;
    for (;;) {
        if (queryEof_)
            return shadowTail();
        if (indexEof_)
            return queryTail();
        if (!fetched_) {
            int reader = 0;
            if ((rc = fetch(&reader)))
                return rc;
            if (reader < 0) {
                std::fprintf(stderr, "quenby: verifyshadow: read shadow file failed at offset %lld\n", indexLine_.offset);
                return reader;
            }
            if (reader == PDR_UNSUPPORTED || reader == PDR_INTERNAL) {
                v_.reportLine("INTERNAL file or UNSUPPORTED characters in shadow: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
                ++v_.counts.invalid;
                if ((rc = advanceShadow()))
                    return rc;
                continue;
            }
        }
        if (unsupportedQueryPath()) {
            ++v_.counts.unsupported;
            if ((rc = readQuery()))
                return rc;
            continue;
        }
        if (quenby_debug > 4)
            std::fprintf(stderr, "quenby::verifyshadow comparing \n %s %s \n", queryLine_, s.line);
        if (!v_.shadowExamined) {
            v_.checkHsmState();
            if (s.state != PDR_NORMAL) {
                v_.reportLine("Record flag is error: %016llx %.*s 0x%x\n", (unsigned long long)s.ino, VIEW_ARGS(s.path), s.state);
                ++v_.counts.invalid;
            } else {
                ++v_.counts.normal;
            }
            v_.shadowExamined = true;
        }
        int cmp = q_.path.compare(s.path);
        if (cmp == 0) {
            if (q_.attrFlag != 0
                && (!holds(s.show, q_.mtimeDate, 0) || !holds(s.show, q_.mtimeTime, 11)
                    || !holds(s.show, q_.ctimeDate, 27) || !holds(s.show, q_.ctimeTime, 38))) {
                v_.reportLine("Attribute is error: %016llx %.*s %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path), VIEW_ARGS(s.show));
                ++v_.counts.invalid;
            }
            if ((rc = readQuery()) || (rc = advanceShadow()))
                return rc;
        } else if (cmp < 0) {
            v_.reportLine("File doesn't exist in Shadow: %.*s\n", VIEW_ARGS(q_.path));
            ++v_.counts.invalid;
            if ((rc = readQuery()))
                return rc;
        } else {
            v_.reportLine("Unvalid file in shadow: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
            ++v_.counts.invalid;
            if ((rc = advanceShadow()))
                return rc;
        }
    }
}

// The server holds nothing more: every shadow record left is invalid.
int QueryWalk::shadowTail()
{
    Record& s = v_.shadowRec;
    while (!indexEof_) {
        int reader = 0;
        if (int rc = fetch(&reader))
            return rc;
        if (reader < 0) {
            std::fprintf(stderr, "quenby: verifyShadow: read shadow file failed at offset %lld\n", indexLine_.offset);
            return reader;
        }
        v_.reportLine("Unvalid file in shadow: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        ++v_.counts.invalid;
        if (int rc = advanceShadow())
            return rc;
    }
    return 0;
}

// The shadow database holds nothing more: every query record left is missing.
int QueryWalk::queryTail()
{
    while (!queryEof_) {
        if (unsupportedQueryPath()) {
            ++v_.counts.unsupported;
        } else {
            v_.reportLine("File doesn't exist in Shadow: %.*s\n", VIEW_ARGS(q_.path));
            ++v_.counts.invalid;
        }
        int rc = readQueryRecord(query_, queryRoom_, &q_, &queryEof_, &queryLine_);
        if (rc != 0 || (rc = checkOrder()) != 0)
            return rc;
    }
    return 0;
}


} // namespace

int verifyQueryWalk(VerifyContext& v, const char* qbsQueryFile, const char* sortedIndexName, bool* completed)
{
    *completed = false;
    char* expire = nullptr;
    int rc = sortPDRListByPathname(v.shadowFile, sortedIndexName, &expire, v.sortDirectory, v.sortCommand);
    std::unique_ptr<char, FreeDeleter> expireData(expire);
    if (rc != 0) {
        std::fprintf(stderr, "quenby:VERIFYSHADOW::1::sort scan shadow file fail, rc = %d\n", rc);
        return rc;
    }
    LineSource index, query;
    for (auto [source, name] : {std::pair{&index, sortedIndexName}, std::pair{&query, qbsQueryFile}})
        if (int err = source->open(name)) {
            std::fprintf(stderr, kCannotRead, name, err);
            return -1;
        }
    QueryWalk walk(v, index, query, qbsQueryFile);
    walk.follow(sortedIndexName);
    rc = walk.run();
    if (rc != 0)
        return rc;
    *completed = true;
    return v.counts.invalid > 0 ? 1 : 0;
}
