// What every classifier of header lines owes its table of names.
#ifndef RDX_TESTS_SUPPORT_CLASSIFIER_H
#define RDX_TESTS_SUPPORT_CLASSIFIER_H

#include "tests/support/guarded.h"

#include <gtest/gtest.h>

#include <cctype>
#include <span>
#include <string>
#include <string_view>

namespace rdx::test {

using Classifier = int (*)(const char* p, const char* q, char** ppcolon);

// The classifier's result for a line that ends right before an unreadable page; `colon` receives the colon's
// index, or -1 when the position was left untouched.
inline int Classify(Classifier classifier, std::string_view line, long* colon = nullptr) {
    const GuardedBytes bytes(line);
    char untouched = 0;
    char* position = &untouched;
    const int result = classifier(bytes.begin(), bytes.end(), &position);
    if (colon != nullptr) *colon = position == &untouched ? -1 : position - bytes.begin();
    return result;
}

inline std::string Mapped(std::string text, int (*map)(int)) {
    for (char& c : text) c = static_cast<char>(map(static_cast<unsigned char>(c)));
    return text;
}

// Walks the table from end to end: every name, in every case, and every beginning of it from two characters
// on is in the class; a longer name is not.
inline void ExpectKnowsItsTable(Classifier classifier, std::span<const char* const> names) {
    for (const std::string name : names) {
        SCOPED_TRACE(name);
        for (std::size_t length = 2; length <= name.size(); ++length) {
            const std::string beginning = name.substr(0, length);
            long colon = 0;
            EXPECT_EQ(Classify(classifier, beginning + ": v", &colon), 1) << beginning;
            EXPECT_EQ(colon, static_cast<long>(length)) << beginning;
        }
        EXPECT_EQ(Classify(classifier, Mapped(name, std::tolower) + ":"), 1);
        EXPECT_EQ(Classify(classifier, Mapped(name, std::toupper) + ":"), 1);
        EXPECT_EQ(Classify(classifier, name + "x: v"), 0);
        EXPECT_EQ(Classify(classifier, name + " : v"), 0);
        EXPECT_EQ(Classify(classifier, " " + name + ": v"), 0);
        EXPECT_EQ(Classify(classifier, name + std::string("\0: v", 4)), 0) << "a NUL is part of the name";
        EXPECT_EQ(Classify(classifier, name + std::string("\0xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx:", 38)), 0);
        EXPECT_EQ(Classify(classifier, name), -6) << "no colon";
    }
}

// What holds whatever the table.
inline void ExpectRefusesMalformedLines(Classifier classifier) {
    long colon = 0;
    EXPECT_EQ(Classify(classifier, "X: 1", &colon), -6);
    EXPECT_EQ(colon, 1) << "the position is set for a name that is too short";
    EXPECT_EQ(Classify(classifier, ": 1", &colon), -6);
    EXPECT_EQ(colon, 0);
    EXPECT_EQ(Classify(classifier, "no colon", &colon), -6);
    EXPECT_EQ(colon, -1) << "the position is left alone without a colon";
    EXPECT_EQ(Classify(classifier, "", &colon), -6);
    EXPECT_EQ(colon, -1);
    EXPECT_EQ(Classify(classifier, "X-Foo: 1", &colon), 0);
    EXPECT_EQ(colon, 5);
    EXPECT_EQ(Classify(classifier, "X-Foo: a: b", &colon), 0) << "the first colon counts";
    EXPECT_EQ(colon, 5);

    const std::string_view line = "Via: 1";
    char untouched = 0;
    char* position = &untouched;
    EXPECT_EQ(classifier(line.data(), line.data() + 3, &position), -6) << "a colon at q is behind the line";
    EXPECT_EQ(position, &untouched);
}

} // namespace rdx::test

#endif
