# Makes one C++ file of all ```cpp blocks of Markdown files, so that a compiler reads what the documents show. The blocks of
# a document stand in a namespace named after it (document_docs_waiting), one after the other; a comment <!-- code: ... -->
# between them adds what a block leaves out, such as the function around it.
FNR == 1 {
    depth = split(FILENAME, parts, "/")
    name = parts[depth - 1] "_" parts[depth]
    sub(/\.md$/, "", name)
    gsub(/[^A-Za-z0-9]/, "_", name)
    body = body (NR == 1 ? "" : "}\n") "\nnamespace document_" name " {\n"
}
/^```cpp/ { inBlock = 1; ++count; body = body "#line " FNR + 1 " \"" FILENAME "\"\n"; next }
/^```/ && inBlock { inBlock = 0; next }
inBlock && /^#include/ { includes = includes $0 "\n"; body = body "\n"; next }
inBlock { body = body $0 "\n" }
!inBlock && /^<!-- code: .* -->$/ {
    body = body "#line " FNR " \"" FILENAME "\"\n" substr($0, 12, length($0) - 15) "\n"
}
END {
    if (count == 0) { print "no blocks found" > "/dev/stderr"; exit 1 }
    gsub(/int main\(/, "int mainOfBlock(", body)
    print includes body "}"
}
