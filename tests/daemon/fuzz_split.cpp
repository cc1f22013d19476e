// Random request texts through the daemon's splitter. Whatever a client
// sends, the vector must be well formed (a null first element, then
// terminated words without a double quote), the words must be those the
// quoting gives, and freeing it must leave the heap intact (run this under
// WINEDEBUG=warn+heap to have Wine check every block).
//
// A failure prints the seed; TZ_FUZZ_SEED=<seed> replays the run, and
// TZ_FUZZ_ITERATIONS changes the number of strings (default 100000).
#include <gtest/gtest.h>

#include <stdio.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "harness.h"

namespace {

// The pieces between runs of double quotes; every second one, from the
// first, is a word, and the others are the blanks between words.
std::vector<std::string> WordsOf(const std::string &text)
{
    std::vector<std::string> pieces;
    std::string piece;
    for (char c : text) {
        if (c == '"') {
            if (!piece.empty())
                pieces.push_back(piece);
            piece.clear();
        } else {
            piece += c;
        }
    }
    if (!piece.empty())
        pieces.push_back(piece);
    std::vector<std::string> words;
    for (size_t i = 0; i < pieces.size(); i += 2)
        words.push_back(pieces[i]);
    return words;
}

std::string RandomText(std::mt19937 &random, std::vector<std::string> *sent)
{
    std::string text;
    sent->clear();
    switch (random() % 6) {
    case 0:
    case 1: {  // what the command tool sends: non-empty words, each quoted
        size_t count = random() % 40;
        for (size_t i = 0; i < count; i++) {
            std::string word(1 + random() % 30, ' ');
            for (char &c : word) {
                c = (char)(1 + random() % 255);
                if (c == '"')
                    c = '\'';
            }
            sent->push_back(word);
            text += "\"" + word + "\" ";
        }
        return text;
    }
    case 2: {  // quotes, blanks and letters in any order
        size_t length = random() % 200;
        const char alphabet[] = "\"\" -a";
        for (size_t i = 0; i < length; i++)
            text += alphabet[random() % 5];
        return text;
    }
    case 3: {  // any byte but zero
        text.resize(random() % 400);
        for (char &c : text)
            c = (char)(1 + random() % 255);
        return text;
    }
    case 4:  // at the request limit, many tiny words
        while (text.size() < 16376 - 4)
            text += "\"x\" ";
        return text;
    default:  // empty, only quotes, or no quotes at all
        switch (random() % 3) {
        case 0:
            return "";
        case 1:
            return std::string(1 + random() % 50, '"');
        default:
            return std::string(1 + random() % 50, 'a');
        }
    }
}

}  // namespace

TEST(FuzzSplit, AnyTextGivesAWellFormedVector)
{
    unsigned seed = SeedFromEnvironment();
    long iterations = IterationsFromEnvironment();
    printf("TZ_FUZZ_SEED=%u iterations=%ld\n", seed, iterations);
    fflush(stdout);
    std::mt19937 random(seed);
    DWORD start = GetTickCount();
    std::string problem;
    std::vector<std::string> sent;
    long words = 0;
    const bool heapChecked = HeapCheckedRun();
    const DWORD budgetMs = 25000;
    long done = 0;

    for (long iteration = 0; iteration < iterations && problem.empty(); iteration++, done++) {
        if (heapChecked && GetTickCount() - start > budgetMs)
            break;
        if (iteration % 1000 == 999 && !HeapsIntact()) {
            problem = "heap damaged before iteration " + std::to_string(iteration) + " (seed " +
                      std::to_string(seed) + ")";
            break;
        }
        std::string text = RandomText(random, &sent);
        int argc = -7;
        char **argv = nullptr;
        int result = SplitQuotedArgs(&argc, &argv, text.c_str());
        auto fail = [&](const std::string &what) {
            problem = "iteration " + std::to_string(iteration) + " (seed " + std::to_string(seed) + "): " + what +
                      "\n  text: [" + text.substr(0, 200) + "]";
        };
        std::vector<std::string> expected = WordsOf(text);
        if (result != 0)
            fail("result " + std::to_string(result));
        else if (argv == nullptr || argc < 1)
            fail("count " + std::to_string(argc) + " or no vector");
        else if (argv[0] != nullptr)
            fail("element 0 is not null");
        else if ((size_t)argc != expected.size() + 1)
            fail("count " + std::to_string(argc) + ", expected " + std::to_string(expected.size() + 1));
        for (int i = 1; problem.empty() && i < argc; i++) {
            if (argv[i] == nullptr)
                fail("element " + std::to_string(i) + " is null");
            else if (strchr(argv[i], '"') != nullptr)
                fail("element " + std::to_string(i) + " holds a double quote");
            else if (expected[i - 1] != argv[i])
                fail("element " + std::to_string(i) + " is [" + argv[i] + "], expected [" + expected[i - 1] + "]");
        }
        // Words without quotes, each quoted and followed by a blank, come back as sent.
        if (problem.empty() && !sent.empty() && sent != expected)
            fail("the words sent do not come back");
        words += argc - 1;
        FreeArgs(argc, argv);
    }

    // Freeing what was never split, and an empty vector, must be harmless.
    FreeArgs(0, nullptr);
    FreeArgs(-1, nullptr);
    char **lone = (char **)calloc(1, sizeof(char *));
    FreeArgs(0, lone);

    DWORD spent = GetTickCount() - start;
    if (problem.empty() && !HeapsIntact())
        problem = "heap damaged at the end (seed " + std::to_string(seed) + ")";
    printf("%ld strings, %ld words, in %lu ms%s\n", done, words, spent,
           heapChecked ? " (heap-checked run, time budget)" : "");
    EXPECT_TRUE(problem.empty()) << problem;
    EXPECT_LT(spent, 30000u);
}
