-- Turns the Markdown pages of docs/ into manual pages: a page's own title
-- gives way to the manual page's and every other heading moves up a level,
-- links between the pages become manual page references, and what the
-- pages say for developers only (between the comments "<!-- man: skip -->"
-- and "<!-- man: end -->") is left out. Tables become tagged paragraphs (the
-- first cell as the tag, every other cell on a line of its own under its
-- column's name), which read at any terminal width where a table wider than
-- the terminal would not. Lines are neither justified nor hyphenated, nor
-- broken after a hyphen, so a key path or an option is never cut.
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

function Table(t)
  local heads = {}
  for i, c in ipairs(t.head.rows[1] and t.head.rows[1].cells or {}) do
    heads[i] = pandoc.utils.stringify(c.contents)
  end
  local items = {}
  for _, body in ipairs(t.bodies) do
    for _, row in ipairs(body.body) do
      local def = pandoc.List()
      for i = 2, #row.cells do
        if #def > 0 then def:insert(pandoc.RawInline("man", "\n.br\n")) end
        if #row.cells > 2 and heads[i] and heads[i] ~= "" then
          def:extend({pandoc.Emph(pandoc.Str(heads[i] .. ":")), pandoc.Space()})
        end
        def:extend(pandoc.utils.blocks_to_inlines(row.cells[i].contents))
      end
      table.insert(items, {pandoc.utils.blocks_to_inlines(row.cells[1].contents), {{pandoc.Para(def)}}})
    end
  end
  return pandoc.DefinitionList(items)
end

local function marker(b)
  return b.t == "RawBlock" and b.format == "html" and b.text:match("^<!%-%- man: (%a+) %-%->$")
end

function Pandoc(doc)
  local blocks, skipping = pandoc.List(), false
  for _, b in ipairs(doc.blocks) do
    local m = marker(b)
    if m == "skip" then
      skipping = true
    elseif m == "end" then
      skipping = false
    elseif not skipping then
      blocks:insert(b)
    end
  end
  blocks:insert(1, pandoc.RawBlock("man", ".ad l\n.nh\n.cflags 0 -"))
  doc.blocks = blocks
  return doc
end
