#include "Util/ML_FileUtil.h"

#include <fstream>
#include <system_error>

#include "ML/Exception.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_Util.h"

namespace ML {

namespace fs = std::filesystem;

namespace {

std::string readWholeFile(const fs::path& path, std::ios::openmode mode) {
    // A folder opens like a file on some systems and reports a meaningless size.
    std::error_code ec;
    if (fs::is_directory(path, ec)) ML_THROW("Could not read file (for reading):" + path.string());
    std::ifstream in(path, mode | std::ios::in | std::ios::ate);
    if (!in) ML_THROW("Could not read file (for reading):" + path.string());
    const std::streamoff end = in.tellg();
    if (end < 0) ML_THROW("Could not read file (for reading):" + path.string());
    in.seekg(0, std::ios::beg);
    std::string bytes(static_cast<size_t>(end), '\0');
    if (!bytes.empty() && !in.read(bytes.data(), end)) {
        // Text mode may shrink the contents (line ends); keep what was read.
        if (mode & std::ios::binary || in.bad()) ML_THROW("Could not read file (for reading):" + path.string());
        bytes.resize(static_cast<size_t>(in.gcount()));
    }
    return bytes;
}

std::ofstream openForWriting(const fs::path& path) {
    std::ofstream out(path, std::ios::out | std::ios::binary | std::ios::trunc);
    if (!out) ML_THROW("could not open file (for writing): " + path.string());
    return out;
}

void writeOrThrow(std::ofstream& out, const fs::path& path, const void* data, size_t size) {
    if (size != 0) out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    out.flush();
    if (!out) ML_THROW("could not write file: " + path.string());
}

// NPY type codes of the element types that tensors dump.
const char* numpyTypeCode(u32 dataType) {
    switch (dataType) {
        case U8: return "u1";
        case F16: return "f2";
        case F32: return "f4";
        case I32: return "i4";
        case I64: return "i8";
        default: ML_THROW("Numpy export not implemented for dtype yet! (add to dtToNp map above)");
    }
}

// Magic, version 1.0 and the header length, then the padded header text ending in a line feed.
std::string numpyHeader(const std::vector<u64>& shape, u32 dataType) {
    std::string text = std::string("{'descr': '<") + numpyTypeCode(dataType) + "', 'fortran_order': False, 'shape': (";
    for (u64 extent : shape) text += std::to_string(extent) + ", ";
    text += ")}";

    constexpr size_t kPreamble = 10;  // magic (6), version (2), header length (2)
    const size_t unpadded = kPreamble + text.size() + 1;
    const size_t total = (unpadded + 63) / 64 * 64;
    text.append(total - unpadded, ' ');
    text += '\n';
    if (text.size() > 0xFFFF) ML_THROW("Numpy header too long for format 1.0: " + std::to_string(text.size()));

    std::string header("\x93NUMPY\x01\x00", 8);
    header += static_cast<char>(text.size() & 0xFF);
    header += static_cast<char>((text.size() >> 8) & 0xFF);
    return header + text;
}

}  // namespace

std::string readBinaryFile(const fs::path& path) { return readWholeFile(path, std::ios::binary); }

std::string readTextFile(const fs::path& path) { return readWholeFile(path, std::ios::openmode{}); }

void writeBinaryFile(const fs::path& path, const void* data, size_t size) {
    std::ofstream out = openForWriting(path);
    writeOrThrow(out, path, data, size);
}

bool fileExists(const fs::path& path) {
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    // The query maps every "not found" error (no such entry, a file used as folder) to not_found.
    if (status.type() == fs::file_type::not_found) return false;
    if (ec) throw fs::filesystem_error("exists", path, ec);
    return status.type() != fs::file_type::none;
}

fs::path encryptedTwin(const fs::path& path) {
    const std::string name = path.filename().string();
    std::string extension;
    if (name != "." && name != "..") {
        const auto dot = name.find_last_of('.');
        if (dot != std::string::npos) extension = name.substr(dot);
    }
    if (extension == ".bin") return path;
    std::string twin = path.string();
    twin.erase(twin.size() - extension.size());
    return fs::path(twin + ".bin");
}

std::string readFileOrEncrypted(const fs::path& path) {
    if (fileExists(path)) return readBinaryFile(path);
    const fs::path enc = encryptedTwin(path);
    if (fileExists(enc)) return readEncryptedFile(enc);
    ML_THROW_HOST("Could not load file or encrypted fallback: " + path.string() + " - or - " + enc.string());
}

void writeNumpy(const fs::path& path, const void* data, const std::vector<u64>& shape, u32 dataType) {
    const std::string header = numpyHeader(shape, dataType);
    u64 bytes = bytesPerElement(dataType);
    for (u64 extent : shape) bytes *= extent;

    std::ofstream out = openForWriting(path);
    writeOrThrow(out, path, header.data(), header.size());
    writeOrThrow(out, path, data, static_cast<size_t>(bytes));
}

}  // namespace ML
