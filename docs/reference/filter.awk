# What Doxygen reads instead of a header or a page, so that both read well as they are. Lines keep their numbers.
#
# usage: awk -v root=SOURCES -f filter.awk FILE
#
# Headers: what is declared in one makes a module, called as the file, under that of its folder. The sentence above the
# includes describes it, and so does the guide page of this name, if there is one, with its first program. A class of this
# name has both, too. "Failure     what happens" begins a paragraph with that title. "// ---- Title" among the members
# of a class begins a section of them.
#
# Pages: headings and links between pages get labels of ours; long pages get a table of contents.
#
# In both, capitalised words of prose are no links to classes which happen to have their names.

BEGIN {
    path = ARGV[1]
    if (index(path, root "/") == 1) path = substr(path, length(root) + 2)
    isPage = path ~ /\.md$/
    stem = path
    sub(/^.*\//, "", stem)
    sub(/\..*$/, "", stem)
    floor = path
    sub(/\/[^\/]*$/, "", floor)
    gsub(/\//, "_", floor)
    isModule = path ~ /\.hpp$/ && stem !~ /^(BaseOp|Files|Forward|Model|Version)$/
    module = floor "_" stem
    scopes = 0
}

# A line of text in which only what stands in `backticks` or "quotes", which may have begun in a line before, or
# LooksLikeThis or like::this can be the name of a class.
function prose(line,    done, part, mark) {
    done = ""
    while (line != "") {
        mark = inside
        if (inside == "" && match(line, /[`"]/)) mark = substr(line, RSTART, 1)
        part = mark == "" || !index(line, mark) ? line : substr(line, 1, index(line, mark))
        line = substr(line, length(part) + 1)
        while (inside == "" && match(part, /(^|[ (])[A-Z][a-z]+([ ,.;)]|$)/)) {
            if (substr(part, RSTART, 1) !~ /[A-Z]/) { ++RSTART; --RLENGTH }
            done = done substr(part, 1, RSTART - 1) "%" substr(part, RSTART, RLENGTH - 1)
            part = substr(part, RSTART + RLENGTH - 1)
        }
        done = done part
        if (mark != "" && substr(part, length(part)) == mark) inside = inside == "" ? mark : ""
    }
    return done
}

# ---- Pages

function anchor(title) {
    title = tolower(title)
    gsub(/[^a-z0-9 _-]/, "", title)
    gsub(/ /, "-", title)
    return title
}

# [text](docs/Page.md#heading) -> [text](@ref page_Page_heading), and likewise inside of a page.
function linked(line,    done, target, page, part) {
    done = ""
    while (match(line, /\]\([A-Za-z0-9_.\/-]*\.md(#[a-z0-9-]*)?\)|\]\(#[a-z0-9-]*\)/)) {
        target = substr(line, RSTART + 2, RLENGTH - 3)
        part = target ~ /#/ ? target : ""
        sub(/^[^#]*#/, "_", part)
        page = target
        sub(/#.*/, "", page)
        sub(/^.*\//, "", page)
        sub(/\.md$/, "", page)
        done = done substr(line, 1, RSTART - 1) "](@ref page_" (page == "" ? stem : page) part ")"
        line = substr(line, RSTART + RLENGTH)
    }
    return done line
}

isPage && /^```/ { inFence = !inFence }
isPage && !inFence && /^# / { print $0 " {#page_" stem "}"; next }
isPage && !inFence && /^##+ / {
    ++headings
    title = $0
    sub(/^#+ /, "", title)
    print $0 " {#page_" stem "_" anchor(title) "}"
    next
}
isPage && !NF { inside = "" }
isPage { print inFence || /^    |^```/ ? $0 : prose(linked($0)); next }

# ---- Headers

# A line of a comment, where "see `name`" has to lead somewhere.
function comment(line) {
    line = prose(line)
    if (!match(line, /[Ss]ee `[A-Za-z:]+`/)) return line
    return substr(line, 1, RSTART + 3) "@ref " substr(line, RSTART + 5, RLENGTH - 6) substr(line, RSTART + RLENGTH)
}

# What a guide page says of its header, as comment lines; nothing where there is no page.
function guide(    page, line, text, inSample) {
    page = root "/docs/" stem ".md"
    if ((getline line < page) <= 0) return ""
    text = "/// @titled{Guide} @ref page_" stem "\n"
    while ((getline line < page) > 0) {
        if (inSample && line ~ /^```/) {
            text = text "/// @endcode\n"
            break
        }
        if (inSample) text = text "/// " line "\n"
        if (!inSample && line ~ /^```cpp/) {
            text = text "/// @titled{Sample} @code{.cpp}\n"
            inSample = 1
        }
    }
    close(page)
    return text
}

isModule && NR == 1 && /^#pragma once/ {
    print "/// @module{" module "," stem "," floor "}"
    isOpening = 1
    next
}
isOpening && !/^\/\/\// {
    print "/// @{"
    isOpening = 0
    isOpen = 1
    next
}
# The members of a namespace are the module's, but not the namespace.
isOpen && /^(inline )?namespace .*\{$/ {
    scope[++scopes] = $0
    sub(/^(inline )?namespace /, "", scope[scopes])
    sub(/ *\{$/, "", scope[scopes])
    scopeLine[scopes] = NR
    print scopes == 1 ? "/** @} */ " $0 " /** @reopen{" module "} */" : $0
    next
}
isOpen && (/^\} +\/\/ namespace/ || (scopes && /^\}$/ && scopeLine[scopes] == NR - 2)) {
    print --scopes ? $0 : "/** @} */ } /** @reopen{" module "} */"
    next
}
isOpen && /^(class|struct) .*[^;]$/ {
    name = $0
    sub(/ *( final)?( : .*)?\{?$/, "", name)
    sub(/.* /, "", name)
    if (name == stem) {
        described = ""
        for (s = 1; s <= scopes; ++s) described = described scope[s] "::"
        described = described stem
    }
}

/^ +\/\/ ---- / {
    title = $0
    sub(/^ *\/\/ ---- /, "", title)
    print (inSection ? "/** @} */ " : "") "/** @name " title " */ /** @{ */"
    inSection = 1
    next
}
inSection && /^(public:|protected:|private:|};)/ {
    print "/** @} */ " $0
    inSection = 0
    next
}

/^ *\/\/\// {
    text = $0
    sub(/^ *\/\/\/<?/, "", text)
    indent = substr($0, 1, length($0) - length(text))
    sub(/^ Concurrency /, " Concurrency  ", text) # a column that this word fills
    if (text ~ /^ [A-Z][a-z]+( [a-z]+)?  +[^ ]/) {
        match(text, /  +/)
        print indent " @titled{" substr(text, 2, RSTART - 2) "} " comment(substr(text, RSTART + RLENGTH))
        inTitled = 1
    } else {
        if (!inTitled || text !~ /^   /) inTitled = 0
        else sub(/^ +/, " ", text)
        print indent comment(text)
    }
    next
}
{ inside = "" }
{ inTitled = 0 }
/^ +friend (class|struct) / { print ""; next } # no affair of readers; friends that are functions are
{ print }

END {
    if (isPage && headings > 3) print "\n[TOC]"
    if (!isOpen) exit
    print "/// @}"
    text = guide()
    if (text == "") exit
    print "/// @addtogroup " module "\n" text
    if (described != "") print "/// @class " described "\n" text
}
