#pragma once

#include <string>
#include <vector>

#include "recipes/recipe_store.h"

namespace tarnbloom::cli {

// `tarnbloom recipe list|show|import|export|delete|save ...`. Returns the
// exit status.
int runRecipe(const std::vector<std::string>& arguments);

// The methods this computer can run now: Enhance only with its model.
recipes::AvailableMethods availableMethods();
// The user's recipe library ("Recipes" in the state folder).
recipes::RecipeStore recipeLibrary();
// The usable recipe with this id or name. Throws RecipeLookupError.
recipes::RecipeDraft findRecipe(const std::string& key);

}  // namespace tarnbloom::cli
