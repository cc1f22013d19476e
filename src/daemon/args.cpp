// The argument string of a request, split back into words.
//
// A sender writes each word as a double quote, the word, a double quote and
// one blank. The split cuts at double quotes and treats a run of them as one
// cut, so the pieces alternate between words and the blanks between them. An
// empty word ("") has no piece of its own and shifts that alternation; a
// double quote inside a word ends the word. Senders avoid both.
#include <stdlib.h>
#include <string.h>

#include "daemon/daemon.h"

// The next piece of `*cursor` between double quotes, cut out in place, or
// null when none is left (and from then on).
static char *NextPiece(char **cursor)
{
    char *start = *cursor;
    if (start == NULL)
        return NULL;
    while (*start == '"')
        start++;
    if (*start == 0) {
        *cursor = NULL;
        return NULL;
    }
    char *end = strchr(start, '"');
    if (end != NULL) {
        *end = 0;
        *cursor = end + 1;
    } else {
        *cursor = start + strlen(start);
    }
    return start;
}

int SplitQuotedArgs(int *argc, char ***argv, const char *commandString)
{
    char *copy = commandString != NULL ? _strdup(commandString) : NULL;
    if (copy == NULL)
        return 0;
    // Element 0 stays null, where a program name would stand.
    char **array = (char **)calloc(1, sizeof(char *));
    if (array == NULL) {
        free(copy);
        return 0;
    }
    int count = 1;
    char *cursor = copy;
    char *piece = NextPiece(&cursor);
    while (piece != NULL) {
        NextPiece(&cursor);  // the blank between two words
        // Short of memory, the words split so far are what the caller gets.
        char **grown = (char **)realloc(array, (size_t)(count + 1) * sizeof(char *));
        if (grown == NULL)
            break;
        array = grown;
        array[count] = _strdup(piece);
        if (array[count] == NULL)
            break;
        piece = NextPiece(&cursor);
        count++;
    }
    free(copy);
    *argc = count;
    *argv = array;
    return 0;
}

void FreeArgs(int argc, char **argv)
{
    if (argv == NULL)
        return;
    for (int i = 0; i < argc; i++)
        free(argv[i]);  // free(NULL) does nothing
    free(argv);
}
