// SPDX-License-Identifier: LGPL-2.1-or-later
// The RapidJSON types of the storage API, declared without including RapidJSON.
//
// RapidJSON is configured by macros that must be set before its first header, above all
// RAPIDJSON_ASSERT. The library builds it with its own assertion hook, and <rapidjson/fwd.h>
// would already fix the default one, so the public headers name RapidJSON's templates
// through these declarations only. An application that looks into stored values includes
// RapidJSON itself, with the assertion hook of its choice; it must keep the default
// namespace and memory layout (RAPIDJSON_NAMESPACE, RAPIDJSON_48BITPOINTER_OPTIMIZATION),
// which are part of the library's interface.
#pragma once

namespace rapidjson {

class CrtAllocator;
template <typename BaseAllocator>
class MemoryPoolAllocator;
template <typename CharType>
struct UTF8;
template <typename Encoding, typename Allocator>
class GenericValue;
template <typename Encoding, typename Allocator>
struct GenericMember;
template <typename Encoding, typename Allocator, typename StackAllocator>
class GenericDocument;

} // namespace rapidjson

namespace tarvek::provider::storage {

// The one instantiation of each template that Storage uses: UTF-8 text in a memory pool
// over CrtAllocator, RapidJSON's defaults.
using MemoryPoolAllocator = rapidjson::MemoryPoolAllocator<rapidjson::CrtAllocator>;
using GenericValue = rapidjson::GenericValue<rapidjson::UTF8<char>, MemoryPoolAllocator>;
using GenericMember = rapidjson::GenericMember<rapidjson::UTF8<char>, MemoryPoolAllocator>;
using GenericDocument = rapidjson::GenericDocument<rapidjson::UTF8<char>, MemoryPoolAllocator, rapidjson::CrtAllocator>;

} // namespace tarvek::provider::storage
