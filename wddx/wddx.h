/*
 * WDDX values: the tree of values that a packet carries, its parser and its printer.
 *
 * Conventions
 *   - A tree is owned by whoever holds its root. Putting a value into a structure or an array hands it to
 *     the container; a value must never be in two places. wddxFree releases a value and all below it.
 *   - Everything owned lives in memory of malloc: texts and elements that a function gives away are freed
 *     with free, or with the function named there.
 *   - Texts are bytes that end with a NUL; nothing is converted between character sets. Numbers are read
 *     and written in the form of the "C" locale, whatever locale the process has set.
 *   - A null pointer where a value, a name or a text is expected is a failure like any other, never a crash.
 *   - No function uses more stack for a deeper tree.
 *   - Every function works on its arguments only and may run on several threads at once.
 */
#ifndef RDX_WDDX_WDDX_H
#define RDX_WDDX_WDDX_H

#include "common/export.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------ values --- */

/* What a value is; the codes of WddxValue.type. */
typedef enum WddxType {
    WDDX_NULL = 0,
    WDDX_STRING = 1,
    WDDX_INTEGER = 2,
    WDDX_FLOAT = 3,
    WDDX_BOOLEAN = 4,
    WDDX_ARRAY = 5,
    WDDX_STRUCT = 6
} WddxType;

/* What stands for a type, a size or a row of a table where there is none. */
enum { WDDX_NONE = -1 };

typedef struct WddxArray WddxArray;
typedef struct WddxMember WddxMember;

/* A value's own part, read according to its type. A payload that the type does not use is zero. */
typedef union WddxPayload {
    char* string;          /* WDDX_STRING: owned text */
    int integer;           /* WDDX_INTEGER */
    double floating;       /* WDDX_FLOAT */
    unsigned char boolean; /* WDDX_BOOLEAN: 0 or 1; any other byte prints as true */
    WddxArray* array;      /* WDDX_ARRAY: owned block */
    WddxMember* members;   /* WDDX_STRUCT: owned list in order of insertion, null when empty */
} WddxPayload;

/* One value; a block of its own. */
typedef struct WddxValue {
    int type;                                        /* a WddxType */
    __attribute__((aligned(8))) WddxPayload payload; /* 8 bytes on every platform */
} WddxValue;

/* The elements of an array; never grows or shrinks. */
struct WddxArray {
    int count;            /* number of elements */
    WddxValue** elements; /* `count` owned values, none of them null; null when `count` is 0 */
};

/* One member of a structure. */
struct WddxMember {
    char* name;       /* owned; compared byte by byte */
    WddxValue* value; /* owned */
    WddxMember* next; /* null at the end */
};

/* Each creates one value, the caller's, or returns null when memory is short. */
RDX_API WddxValue* wddxCreateNull(void);
RDX_API WddxValue* wddxCreateInteger(int v);

/* The same as wddxCreateInteger with the low 32 bits of `v`: there is one type of integer only. */
RDX_API WddxValue* wddxCreateLongInteger(long v);
RDX_API WddxValue* wddxCreateFloat(double v);

/* `v` is stored as it is; pass 0 or 1. */
RDX_API WddxValue* wddxCreateBoolean(unsigned char v);

/* Holds a copy of `s`; a null `s` gives the empty text. */
RDX_API WddxValue* wddxCreateString(const char* s);

/* A structure without members. */
RDX_API WddxValue* wddxCreateStruct(void);

/* An array of `n` null values. Also null when `n` is less than 1. */
RDX_API WddxValue* wddxCreateArray(int n);

/*
 * Sets the member `name` of the structure `s`: the value of a member of that name is freed and replaced, its
 * place kept; otherwise a member is appended.
 *   s     in/out: nothing happens when it is null or not a structure.
 *   name  in: copied; nothing happens when it is null.
 *   v     in: handed over; null stands for a new null value. The value that already is the member's is left.
 * When nothing happens, also because memory is short, `v` still belongs to the caller, who can tell by
 * wddxGetStructVar(s, name) not being `v`.
 */
RDX_API void wddxSetStructVar(WddxValue* s, const char* name, WddxValue* v);

/*
 * The value of the member `name`, still the structure's; of several such members, which only a packet can
 * bring, the first. Null when an argument is null, `s` is not a structure or has no such member.
 */
RDX_API WddxValue* wddxGetStructVar(WddxValue* s, const char* name);

/*
 * Sets the element `i` of the array `a`; the old one is freed.
 *   a  in/out: nothing happens when it is null or not an array.
 *   i  in: 0 to the size minus 1; nothing happens otherwise.
 *   v  in: handed over; null stands for a new null value. The value that already is the element is left.
 * When nothing happens, also because memory is short, `v` still belongs to the caller.
 */
RDX_API void wddxSetArrayElem(WddxValue* a, int i, WddxValue* v);

/* The element `i`, still the array's. Null when `a` is null or not an array, or `i` is out of range. */
RDX_API WddxValue* wddxGetArrayElem(WddxValue* a, int i);

/* The number of elements; WDDX_NONE when `a` is null, not an array or has no block. */
RDX_API int wddxGetArraySize(WddxValue* a);

/*
 * Each reads a value of one type; there is no conversion between types, not even from integer to float.
 * Returns 1 with `*out` set; 0 with `*out` untouched when a pointer is null or the type is another.
 */
RDX_API int wddxGetInteger(int* out, WddxValue* v);

/* Reads a WDDX_INTEGER too; `*out` is the 32-bit value with its sign, also where a long has 64 bits. */
RDX_API int wddxGetLongInteger(long* out, WddxValue* v);
RDX_API int wddxGetFloat(double* out, WddxValue* v);
RDX_API int wddxGetBoolean(unsigned char* out, WddxValue* v);

/* `*out` is the value's own text, no copy. */
RDX_API int wddxGetString(char** out, WddxValue* v);

/* The WddxType of `v`, or WDDX_NONE for null. */
RDX_API int wddxGetType(WddxValue* v);

/* Frees `*pv` with all below it and nulls `*pv`. Does nothing when `pv` or `*pv` is null. */
RDX_API void wddxFree(WddxValue** pv);

/* Frees and nulls what the payload of `v` owns, but not `v` itself. Does nothing for null. */
RDX_API void freeValueStruct(WddxValue* v);

/* ------------------------------------------------------------------------------------------ parser --- */

/* The tags, each a bit of its own so that sets of them are masks. */
enum {
    WDDX_TAG_ROOT = 1, /* stands for the document around the packet; has no name */
    WDDX_TAG_PACKET = 2,
    WDDX_TAG_HEADER = 4,
    WDDX_TAG_COMMENT = 8,
    WDDX_TAG_DATA = 16,
    WDDX_TAG_VAR = 32,
    WDDX_TAG_NULL = 64,
    WDDX_TAG_BOOLEAN = 128,
    WDDX_TAG_NUMBER = 256,
    WDDX_TAG_STRING = 1024,
    WDDX_TAG_ARRAY = 2048,
    WDDX_TAG_STRUCT = 4096,
    WDDX_TAG_RECORDSET = 8192,
    WDDX_TAG_FIELD = 65536
};

enum {
    WDDX_TAG_COUNT = 14,     /* rows of g_astTagDef */
    WDDX_TAG_TEXT_SIZE = 100 /* bytes for a name or a value in a tag, the NUL included */
};

/* What is known of one tag. */
typedef struct TagDef {
    unsigned int dwId;          /* the tag's bit */
    const char* szName;         /* its name, case-sensitive */
    const char* szAttr;         /* the name of its one attribute, or null when it has none */
    unsigned int dwChildren;    /* the bits of the tags allowed directly inside */
    unsigned char ucEmptyTag;   /* 1: must be written self-closed */
    unsigned char ucMultiChild; /* 1: may hold more than one child */
    unsigned char ucMayBeEmpty; /* 1: may have no content at all */
    unsigned char ucNeedsChild; /* 1: holds tags only, exactly one of them when ucMultiChild is 0 */
} TagDef;

extern RDX_API const TagDef g_astTagDef[WDDX_TAG_COUNT];

/* A tag as it was read. */
typedef struct WddxTag {
    unsigned char bEnd;                   /* 1: an end tag or a self-closed tag */
    unsigned char bSelfClosed;            /* 1: a self-closed tag; bEnd is 1 too */
    char szName[WDDX_TAG_TEXT_SIZE];      /* the tag's name */
    char szAttrName[WDDX_TAG_TEXT_SIZE];  /* the first attribute's name; empty without one */
    char szAttrValue[WDDX_TAG_TEXT_SIZE]; /* its value as it stands, entities included */
} WddxTag;

/* A tag with its content: a node of the tree between the text and the values. */
typedef struct WddxElement WddxElement;
struct WddxElement {
    unsigned int dwId;        /* the tag's bit */
    char* pszText;            /* owned: the attribute's value or the decoded text inside, or null */
    WddxElement* pPrev;       /* the sibling before, or null */
    WddxElement* pNext;       /* the sibling behind, or null */
    WddxElement* pParent;     /* the parent of a first child; null for every other */
    WddxElement* pFirstChild; /* owned with its siblings, or null */
};

/*
 * Parses a packet.
 *   text  in: the packet's text. White space between tags is text to the parser and refused in most places:
 *         strip it first. What stands before the packet's first known tag or behind its end is not looked at.
 * Returns the value inside the packet's data element, the caller's (wddxFree), or null for every failure: a
 * null text, anything malformed or unknown, a name or value of WDDX_TAG_TEXT_SIZE bytes and more in a tag,
 * a recordset, an empty structure, an array of fewer elements than its length says, memory short.
 */
RDX_API WddxValue* wddxParseStream(const char* text);

/*
 * Reads the next tag. Of attributes, only the first is looked at. Its value is what stands up to the next
 * quote behind the first character that is no quote, blank, line end or "=": an empty value is no value, and
 * what a client leaves empty takes in what stands behind it.
 *   cursor  in/out: the text; on success moved behind the tag, otherwise left.
 * Returns the tag, to be freed with free. Null when there is none, it is broken off, a name or value in it
 * has WDDX_TAG_TEXT_SIZE bytes and more, or memory is short.
 */
RDX_API WddxTag* getNextTag(const char** cursor);

/* The row of g_astTagDef that has the name, which is the root's for an empty one, or WDDX_NONE. */
RDX_API int lookupTagByName(const char* name);

/* The row of g_astTagDef that has the id, or WDDX_NONE. */
RDX_API int lookupTagById(unsigned int id);

/*
 * Makes the element of a tag; its text is the attribute's value where the tag has an attribute.
 * Returns the element, to be freed with freeElements. Null when the tag's name is unknown, it lacks its
 * attribute, it must be self-closed and is not, or memory is short.
 */
RDX_API WddxElement* checkTagAndCreateElement(WddxTag* tag);

/*
 * Reads and checks the content of an element up to its end tag.
 *   cursor   in/out: the text behind the element's start tag; on success moved behind its end tag.
 *   element  in/out: a new element without children; receives text and children, some also on failure.
 * Returns 1, or 0 when the content breaks a rule of g_astTagDef or is broken off, or memory is short.
 */
RDX_API int parseTagContent(const char** cursor, WddxElement* element);

/* The data element of the packet under `root`, still the tree's; null when there is none in its place. */
RDX_API WddxElement* parseElements(WddxElement* root);

/*
 * Builds the value that an element means; the element is left as it is.
 * Returns the value, the caller's (wddxFree), or null when the element is no value or its content does not
 * make one (see wddxParseStream), or memory is short.
 */
RDX_API WddxValue* createWddxValue(WddxElement* element);

/* Frees an element with all below it, not its siblings. Does nothing for null. */
RDX_API void freeElements(WddxElement* element);

/*
 * Decodes the five named entities. An "&" that starts none of them ends the decoded text there, so that a
 * method sees the text in front of it; numeric references are none of them.
 *   text, len  in: the bytes, which need no NUL.
 * Returns a block of `len` + 1 bytes, to be freed with free; null when `text` is null, `len` negative, a NUL
 * is among the bytes or memory is short.
 */
RDX_API char* convertXml2Utf8(const char* text, int len);

/* ----------------------------------------------------------------------------------------- printer --- */

/*
 * Prints a packet to a stream; nothing is flushed.
 *   stream   in: open for writing.
 *   value    in: the packet's value.
 *   comment  in: the header's comment, put in as it is; null for an empty header.
 * Returns 1; 0 when `stream` or `value` is null (nothing is printed), a write fails, the tree holds a value
 * that has no printed form (see printWddxTag) or memory is short. Printing stops at the part that fails.
 */
RDX_API int wddxPrintStream(FILE* stream, WddxValue* value, const char* comment);

/*
 * Prints a packet into a new text.
 *   value    in: the packet's value.
 *   comment  in: as for wddxPrintStream.
 *   out      out: the text, the caller's to free, also on failure: then what was printed so far. Null when
 *            memory is short.
 * Returns 1, or 0 when the value is null or could not be printed (see printWddxTagToVar). The result is the
 * value's alone: memory that runs short behind it gives 1 with `*out` null, so look at both.
 */
RDX_API int wddxPrintStreamToVar(WddxValue* value, const char* comment, char** out);

/*
 * Prints one value with all below it, without a packet around it.
 * Returns 1; 0 when an argument is null, a write fails, memory is short, or a value has no printed form: an
 * unknown type, a string without text, an array without block, a member without name or value.
 */
RDX_API int printWddxTag(FILE* stream, WddxValue* value);

/*
 * Appends one printed value to `*var`, which holds a text already and is resized. Clients get other texts
 * than from printWddxTag in two cases: a structure without members fails, and the value of a member that
 * fails is left out silently, its var tags standing around what it printed.
 * Returns 1; 0 on failure, with what was printed so far appended. When memory is short for the text, `*var`
 * is freed and null, and the result 0.
 */
RDX_API int printWddxTagToVar(char** var, WddxValue* value);

/*
 * Appends to a text, which then fits its block exactly.
 *   var     in/out: a text of malloc. Null in it stands for a text that was lost, and stays.
 *   format  in: null to append `arg` alone, or a text with one "%s", in whose place `arg` is put.
 *   arg     in: the text; must not be part of `*var`.
 * Returns WDDX_TEXT_ADDED, or WDDX_TEXT_NOT_ADDED: when memory is short, with the text freed and `*var` null;
 * when `var`, `*var` or `arg` is null, with nothing changed.
 */
enum { WDDX_TEXT_ADDED = 0, WDDX_TEXT_NOT_ADDED = -1 };
RDX_API int addTextToVar(char** var, const char* format, const char* arg);

/*
 * Puts the five named entities in the place of "&", "<", ">" and both quotes.
 *   text, len  in: the bytes, which need no NUL.
 * Returns the text, to be freed with free; null when `text` is null, `len` negative, a NUL is among the
 * bytes or memory is short.
 */
RDX_API char* convertUtf82Xml(const char* text, int len);

#ifdef __cplusplus
}
#endif

#endif
