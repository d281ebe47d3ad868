# Puts the style and the script of the page into a header, with the hashes by which the page's content security policy
# admits them and nothing else.

# The Base64 form of a SHA-256 in hexadecimal digits.
function(base64_of_sha256 result digits)
    set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
    set(text "")
    foreach(i RANGE 10)
        math(EXPR begin "${i} * 6")
        string(SUBSTRING "${digits}00" ${begin} 6 group) # 32 bytes and one that fills the last group
        foreach(shift 18 12 6 0)
            math(EXPR letter "(0x${group} >> ${shift}) & 63")
            string(SUBSTRING ${alphabet} ${letter} 1 letter)
            string(APPEND text ${letter})
        endforeach()
    endforeach()
    string(SUBSTRING ${text} 0 43 text)
    set(${result} "${text}=" PARENT_SCOPE)
endfunction()

foreach(part STYLE:page.css SCRIPT:page.js)
    string(REPLACE ":" ";" part ${part})
    list(GET part 0 name)
    list(GET part 1 file)
    set(path ${CMAKE_CURRENT_SOURCE_DIR}/display/html/${file})
    file(READ ${path} PAGE_${name})
    file(SHA256 ${path} digits)
    base64_of_sha256(PAGE_${name}_HASH ${digits})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
endforeach()
configure_file(display/html/page_parts.h.in ${CMAKE_CURRENT_BINARY_DIR}/generated/ctl/display/html/page_parts.h @ONLY)
