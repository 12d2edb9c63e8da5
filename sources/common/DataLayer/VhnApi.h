#pragma once
// The node-tree contract of DataLayer.dll. Every function returns an HRESULT
// (0 on success); sizes are in bytes; handles are pointer-sized and 0 means
// no node. Each handle is closed once with VhnCloseNodeHandle; a node lives
// while a handle or its parent refers to it. When the last reference to a
// root goes, its subtree goes with it, except children still held by their
// own handles, which live on as unattached roots. All functions may be called
// from any thread at once. Out-pointers are left untouched on failure, except
// `*size` on VHN_E_INSUFFICIENT_BUFFER, which receives the needed size.

#include <cstddef>
#include <cstdint>

#ifndef VHN_API
#if defined(DATALAYER_BUILD)
#define VHN_API extern "C" __declspec(dllexport)
#else
#define VHN_API extern "C" __declspec(dllimport)
#endif
#endif

typedef struct VhnNode_* HVHNODE;
typedef long VHNRESULT;

// Attribute value types.
enum : std::uint16_t {
  VHN_TYPE_STRING = 2,          // UTF-16, stored with its terminating zero
  VHN_TYPE_INT32 = 4,           // 4 bytes
  VHN_TYPE_INT64 = 6,           // 8 bytes
  VHN_TYPE_ARRAY = 0x100,       // flag: array of the base type
  VHN_TYPE_STRING_ARRAY = 0x102,  // strings one after another, each ending in a zero
  VHN_TYPE_INT32_ARRAY = 0x104,   // 4 bytes an entry
  VHN_TYPE_INT64_ARRAY = 0x106,   // 8 bytes an entry
};

// The results the functions return; the values are the usual HRESULTs, named
// here so callers need not include <windows.h>.
inline constexpr VHNRESULT VHN_S_OK = 0;
inline constexpr VHNRESULT VHN_E_HANDLE = static_cast<VHNRESULT>(0x80070006);       // null, bad, stale or closed handle
inline constexpr VHNRESULT VHN_E_POINTER = static_cast<VHNRESULT>(0x80004003);      // a required pointer is null
inline constexpr VHNRESULT VHN_E_INVALIDARG = static_cast<VHNRESULT>(0x80070057);   // bad type code, size or shape; a cycle
inline constexpr VHNRESULT VHN_E_OUTOFMEMORY = static_cast<VHNRESULT>(0x8007000E);
inline constexpr VHNRESULT VHN_E_BOUNDS = static_cast<VHNRESULT>(0x8000000B);       // child index out of range
inline constexpr VHNRESULT VHN_E_NOT_FOUND = static_cast<VHNRESULT>(0x80070490);    // no such attribute
inline constexpr VHNRESULT VHN_E_INSUFFICIENT_BUFFER = static_cast<VHNRESULT>(0x8007007A);
inline constexpr VHNRESULT VHN_E_TYPE_MISMATCH = static_cast<VHNRESULT>(0x8007065D);  // stored type differs from expected
inline constexpr VHNRESULT VHN_E_BUSY = static_cast<VHNRESULT>(0x800700AA);         // the child already has a parent
inline constexpr VHNRESULT VHN_E_UNEXPECTED = static_cast<VHNRESULT>(0x8000FFFF);

// Our addition to the host's contract: a new unattached node with empty name
// and type, owned by the returned handle.
VHN_API VHNRESULT VhnCreateNode(HVHNODE* node);

// Copies an attribute. `type` (may be null) is in: the expected type, or 0 for
// any; out: the stored type. `size` (may be null) is in: the buffer's capacity;
// out: the bytes stored or needed. `stored` (may be null) receives the stored
// size. With `type`, `buffer` and `size` all null it only reports the stored
// size. A buffer without a `size` is VHN_E_INVALIDARG. An absent attribute is
// VHN_E_NOT_FOUND; a different stored type VHN_E_TYPE_MISMATCH; a buffer too
// small (or null while the value is not empty) VHN_E_INSUFFICIENT_BUFFER with
// the needed size in `*size` and nothing else written.
VHN_API VHNRESULT VhnGetAttribute(HVHNODE node, const wchar_t* name, std::uint16_t* type, void* buffer,
                                  std::size_t* size, std::size_t* stored);
// Creates or replaces an attribute. Names are exact and case-sensitive. Null
// `data` is allowed only with `size` 0. A type code other than the VHN_TYPE_*
// values, or data that does not fit its type (a string with an odd size or no
// terminating zero, an int32 not 4 bytes, ...) is VHN_E_INVALIDARG.
VHN_API VHNRESULT VhnSetAttribute(HVHNODE node, const wchar_t* name, std::uint16_t type, const void* data,
                                  std::size_t size);
// Appends `child` as the last child of `parent`. A child that is `parent`
// itself or one of its ancestors is VHN_E_INVALIDARG (checked first); a child
// that already has a parent is VHN_E_BUSY.
VHN_API VHNRESULT VhnAddChild(HVHNODE parent, HVHNODE child);
VHN_API VHNRESULT VhnGetChildCount(HVHNODE node, std::uint32_t* count);
// Opens a new handle to a child; the caller closes it. An index at or past the
// child count is VHN_E_BOUNDS.
VHN_API VHNRESULT VhnGetChildByIndex(HVHNODE node, std::uint32_t index, HVHNODE* child);
// Name and type names: `size` (required) in bytes, in: capacity; out: stored
// or needed, the terminating zero included. A null or small buffer is
// VHN_E_INSUFFICIENT_BUFFER with the needed size in `*size`.
VHN_API VHNRESULT VhnGetNodeName(HVHNODE node, wchar_t* buffer, std::size_t* size);
// `reserved` is ignored.
VHN_API VHNRESULT VhnSetNodeName(HVHNODE node, void* reserved, const wchar_t* name);
VHN_API VHNRESULT VhnGetNodeType(HVHNODE node, wchar_t* buffer, std::size_t* size);
VHN_API VHNRESULT VhnSetNodeType(HVHNODE node, const wchar_t* type);
// Opens a second handle to the same node.
VHN_API VHNRESULT VhnDuplicateNodeHandle(HVHNODE node, HVHNODE* duplicate);
// Closing a handle twice, or one never opened, is VHN_E_HANDLE.
VHN_API VHNRESULT VhnCloseNodeHandle(HVHNODE node);

// Diagnostic: the number of nodes currently alive in this process, for leak
// checks in tests and support tools.
VHN_API VHNRESULT VhnGetLiveNodeCount(std::uint64_t* count);
