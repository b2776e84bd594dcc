-- Turns the Markdown pages of docs/ into manual pages: a page's own title
-- gives way to the manual page's and every other heading moves up a level,
-- wide tables fit an 80-column terminal, links between the pages become
-- manual page references, and lines are not justified (long key paths would
-- not fit a narrow column).
local refs = {
  ["configuration.md"] = "zemlanhb.conf(5)",
  ["operations.md"] = "zemlanhb(8)",
  ["zemctl.md"] = "zemctl(8)",
}

function Header(h)
  if h.level == 1 then
    return {}
  end
  h.level = h.level - 1
  return h
end

function Link(link)
  local page = link.target:match("([^/#]+%.md)")
  if page and refs[page] then
    return pandoc.Str(refs[page])
  end
  return link.content
end

-- Relative widths summing to less than the text width, which leaves room
-- for the gaps between columns.
function Table(t)
  local sum = 0
  for _, c in ipairs(t.colspecs) do
    if type(c[2]) == "number" then sum = sum + c[2] end
  end
  if sum > 0 then
    for i, c in ipairs(t.colspecs) do
      t.colspecs[i] = {c[1], c[2] * 0.85 / sum}
    end
  end
  return t
end

function Pandoc(doc)
  table.insert(doc.blocks, 1, pandoc.RawBlock("man", ".ad l"))
  return doc
end
