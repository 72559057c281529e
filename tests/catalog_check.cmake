# The generator must refuse a table whose layout disagrees with its registered
# sizes, or whose domain types disagree with each other, and write nothing.
find_program(PYTHON3 NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(NOT PYTHON3)
  find_program(PYTHON3 NAMES python3)
endif()

set(work ${BINARY_DIR}/catalog_check)
file(READ ${SOURCE_DIR}/tools/catalog/qel.tsv table)

function(expect_refused name broken pattern)
  file(REMOVE_RECURSE ${work})
  file(WRITE ${work}/tables/qel.tsv "${broken}")
  execute_process(COMMAND ${PYTHON3} ${SOURCE_DIR}/tools/gen_catalog.py --tables ${work}/tables --out ${work}/out qel
                  RESULT_VARIABLE result ERROR_VARIABLE errors)
  if(result EQUAL 0)
    message(FATAL_ERROR "${name}: the generator accepted a broken table")
  endif()
  if(NOT errors MATCHES "${pattern}")
    message(FATAL_ERROR "${name}: unexpected message: ${errors}")
  endif()
  if(EXISTS ${work}/out)
    message(FATAL_ERROR "${name}: the generator wrote output for a broken table")
  endif()
endfunction()

# A registered struct_size that the layout rule doesn't give.
string(REPLACE "record\tQelDisseminationField\t0x0001\t8\t6" "record\tQelDisseminationField\t0x0001\t12\t6"
       broken "${table}")
expect_refused(size "${broken}" "QelDisseminationField: layout gives struct_size 8")

# SequenceNo members widened while other members of the same domain type stay.
string(REPLACE "member\tSequenceNo\tOxaSequenceNoType\tINT32\t4" "member\tSequenceNo\tOxaSequenceNoType\tINT64\t8"
       broken "${table}")
expect_refused(domain "${broken}" "domain type OxaSequenceNoType is INT")

# The unchanged table is accepted.
file(REMOVE_RECURSE ${work})
file(WRITE ${work}/tables/qel.tsv "${table}")
execute_process(COMMAND ${PYTHON3} ${SOURCE_DIR}/tools/gen_catalog.py --tables ${work}/tables --out ${work}/out qel
                RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the table as committed was refused: ${errors}")
endif()
