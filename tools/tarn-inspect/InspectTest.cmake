# Runs tarn-inspect on the sample files and checks exit codes and output.
# cmake -DINSPECT=... -DSAMPLES=... -DDIR=... -P InspectTest.cmake
execute_process(COMMAND ${SAMPLES} ${DIR} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "tarn-inspect-samples failed: ${status}")
endif()

# expect(EXIT OUTPUT-REGEX ARGS...): output is stdout and stderr together.
function(expect exit pattern)
  execute_process(COMMAND ${INSPECT} ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL exit OR NOT "${out}${err}" MATCHES "${pattern}")
    message(FATAL_ERROR "tarn-inspect ${ARGN}: exit ${status}, wanted ${exit} and "
      "/${pattern}/; got:\n${out}${err}")
  endif()
endfunction()

expect(0 "^ok: 0 types, 1 extents, 0 live entries, 4096 free slots" verify ${DIR}/new.tarn)
expect(0 "free bytes +256 in 1 gaps.*trailing bytes +256" info ${DIR}/entries.tarn)
expect(0 "\"liveEntries\":2,.*\"gaps\":\\[{\"offset\":263216,\"length\":256}\\]"
  info --json ${DIR}/entries.tarn)
expect(0 "816 +262960 +200 +256 +\"Photo\" +\"first\" +\"thumb\"" entries ${DIR}/entries.tarn)
expect(0 "\"primaryKey\":\"second\"" entries ${DIR}/entries.tarn --json)
expect(1 "unsupported or corrupt.*TarnFileManager:371" verify ${DIR}/damaged.tarn)
expect(1 "\"ok\":false,.*\"raisedAtLine\":371" verify --json ${DIR}/damaged.tarn)
expect(1 "TarnFileManager:336" info ${DIR}/truncated.tarn)
expect(0 "^ok: 1 types, 1 extents, 0 live entries.*\n2 entries an open drops as damaged:\n  slot 816: data overlaps \\(key \"first\", data 262960\\+256\\)"
  verify ${DIR}/salvaged.tarn)
expect(0 "\"droppedEntries\":2,.*\"dropped\":\\[{\"slot\":816,\"reason\":\"data overlaps\""
  verify --json ${DIR}/salvaged.tarn)
expect(1 "cannot open .*missing.tarn" verify ${DIR}/missing.tarn)
expect(2 "^usage:" verify)
expect(2 "^usage:" check ${DIR}/new.tarn)
expect(2 "^usage:" verify ${DIR}/new.tarn --yaml)

# compact: the live entries with no gaps and nothing behind them; in place too.
file(REMOVE ${DIR}/compact.tarn ${DIR}/inplace.tarn)
expect(0 "compacted .*entries.tarn \\(263984 bytes\\) to .*compact.tarn \\(263472 bytes, 2 entries\\)"
  compact ${DIR}/entries.tarn ${DIR}/compact.tarn)
expect(0 "free bytes +0 in 0 gaps.*trailing bytes +0" info ${DIR}/compact.tarn)
expect(0 "\"second\"" entries ${DIR}/compact.tarn)
file(COPY_FILE ${DIR}/entries.tarn ${DIR}/inplace.tarn)
expect(0 "to .*inplace.tarn \\(263472 bytes, 2 entries\\)"
  compact ${DIR}/inplace.tarn ${DIR}/inplace.tarn)
expect(1 "TarnFileManager:371" compact ${DIR}/damaged.tarn ${DIR}/never.tarn)
if(EXISTS ${DIR}/never.tarn OR EXISTS ${DIR}/never.tarn.compacting)
  message(FATAL_ERROR "a refused compaction left a file behind")
endif()
expect(2 "^usage:" compact ${DIR}/entries.tarn)
expect(2 "^usage:" compact ${DIR}/entries.tarn ${DIR}/x.tarn --json)
