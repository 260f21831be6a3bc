// adresse_unique.h - checks that an address field the program wrote names
// exactly one address, as a mail reader parses it.  Shared by the
// whole-program tests and the fuzz target of the header rewriting.
#pragma once

#include <string>

// Why the field (a whole "Name: value" text, folding included) does not
// name exactly one address, or "" when it does: unfolded, the value must
// hold one "<...>" and no comma or ">" outside quoted strings and comments,
// and between the brackets no blank, "<", "," or comment outside a quoted
// part; quotes, comments and brackets must all be closed.
inline std::string DefautAdresseUnique(const std::string &s_Champ) {
    std::string s;
    std::size_t t_Debut = s_Champ.find(':');
    for (std::size_t i = t_Debut == std::string::npos ? 0 : t_Debut + 1; i < s_Champ.size(); i++)
        if (!(s_Champ[i] == '\n' && i + 1 < s_Champ.size() && (s_Champ[i + 1] == ' ' || s_Champ[i + 1] == '\t')))
            s += s_Champ[i];
    if (!s.empty() && s.back() == '\n') s.pop_back();
    bool b_Guillemets = false, b_Chevrons = false;
    int i_Commentaire = 0, i_Adresses = 0;
    for (std::size_t i = 0; i < s.size(); i++) {
        const char c = s[i];
        if (c == '\n' || c == '\r') return "line break in " + s;
        if ((b_Guillemets || i_Commentaire > 0) && c == '\\') i++;
        else if (b_Guillemets) b_Guillemets = c != '"';
        else if (i_Commentaire > 0) i_Commentaire += c == '(' ? 1 : c == ')' ? -1 : 0;
        else if (c == '"') b_Guillemets = true;
        else if (b_Chevrons && (c == '<' || c == ',' || c == ' ' || c == '\t' || c == '('))
            return std::string("'") + c + "' in the address of " + s;
        else if (b_Chevrons) b_Chevrons = c != '>';
        else if (c == '(') i_Commentaire = 1;
        else if (c == ',' || c == '>') return std::string("'") + c + "' outside the address of " + s;
        else if (c == '<') { b_Chevrons = true; i_Adresses++; }
    }
    if (b_Guillemets || b_Chevrons || i_Commentaire != 0) return "unclosed part in " + s;
    if (i_Adresses != 1) return std::to_string(i_Adresses) + " addresses in " + s;
    return "";
}
