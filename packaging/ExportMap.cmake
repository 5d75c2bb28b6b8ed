# Writes the shared library's linker version script: it exports what the static libraries
# define in namespace kavrin (with type information, vtables and thunks), and std::hash for
# its types, but not the namespaces that only the library itself uses, nor DispatchRuntime
# (whose functions hand out Asio's types); everything else (Asio, fmt, the standard library's
# templates) stays local.
#   cmake -DNM=<nm> -DARCHIVES=<archive>|<archive>... -DOUTPUT=<file> -P ExportMap.cmake
string(REPLACE "|" ";" archives "${ARCHIVES}")
execute_process(COMMAND ${NM} -g -P --defined-only ${archives}
                OUTPUT_FILE ${OUTPUT}.symbols COMMAND_ERROR_IS_FATAL ANY)

# Mangled: an optional special name (typeinfo, vtable, thunk, guard variable) and an optional
# enclosing function, then the nested name with its qualifiers.
set(head "^_Z(T[A-Z]|Th[n0-9]+_|Tv[n0-9]+_[n0-9]+_|G[VR])?Z?N[KVrRO]*")
set(internal "6detail|8rawBytes|7padding|11stringChunk|10wireFormat|15asciiScanDetail|9bigEndian|14positionSearch|10matchBytes|8matchRun|15matchStepDetail|15componentSyntax|4slip|9tcpSocket|9udpSocket|15DispatchRuntime")
file(STRINGS ${OUTPUT}.symbols symbols REGEX "${head}6kavrin|^_ZNKSt4hashIN6kavrin")
list(FILTER symbols EXCLUDE REGEX "${head}6kavrin(${internal})")
list(TRANSFORM symbols REPLACE " .*" "")
list(REMOVE_DUPLICATES symbols)
list(SORT symbols)
list(JOIN symbols ";\n    " symbols)
file(WRITE ${OUTPUT} "{\n  global:\n    ${symbols};\n  local: *;\n};\n")
file(REMOVE ${OUTPUT}.symbols)
